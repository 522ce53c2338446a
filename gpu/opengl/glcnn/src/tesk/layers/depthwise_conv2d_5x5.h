// Depthwise convolution with a kernel of 5 by 5.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Depthwise_Conv2D_5x5 : public Operator {
public:
    explicit Depthwise_Conv2D_5x5(tesk::ComputeProgramManager* manager) : Operator(15, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
