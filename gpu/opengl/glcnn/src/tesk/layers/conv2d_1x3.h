// Convolution with a kernel 3 wide and 1 high.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Conv2D_1x3 : public Operator {
public:
    explicit Conv2D_1x3(tesk::ComputeProgramManager* manager) : Operator(1, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
