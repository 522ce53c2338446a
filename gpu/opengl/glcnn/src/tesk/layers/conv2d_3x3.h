// Convolution with a kernel of 3 by 3.
#pragma once

#include "../operator.h"

namespace tesk {

/// Weights at constant indices also want whole slices of output channels.
class TESK_TESTED Conv2D_3x3 : public Operator {
public:
    explicit Conv2D_3x3(tesk::ComputeProgramManager* manager) : Operator(3, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
