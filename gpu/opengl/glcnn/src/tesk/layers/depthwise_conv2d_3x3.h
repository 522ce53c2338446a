// Depthwise convolution with a kernel of 3 by 3.
#pragma once

#include "../operator.h"

namespace tesk {

/// Four pixels at a time where both strides are 1.
class TESK_TESTED Depthwise_Conv2D_3x3 : public Operator {
public:
    explicit Depthwise_Conv2D_3x3(tesk::ComputeProgramManager* manager) : Operator(14, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
