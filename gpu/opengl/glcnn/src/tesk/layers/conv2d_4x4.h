// Convolution with a kernel of 4 by 4.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Conv2D_4x4 : public Operator {
public:
    explicit Conv2D_4x4(tesk::ComputeProgramManager* manager) : Operator(4, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
