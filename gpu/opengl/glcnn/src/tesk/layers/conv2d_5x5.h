// Convolution with a kernel of 5 by 5.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Conv2D_5x5 : public Operator {
public:
    explicit Conv2D_5x5(tesk::ComputeProgramManager* manager) : Operator(7, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
