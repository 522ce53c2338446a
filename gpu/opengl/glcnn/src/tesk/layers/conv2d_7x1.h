// Convolution with a kernel 1 wide and 7 high.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Conv2D_7x1 : public Operator {
public:
    explicit Conv2D_7x1(tesk::ComputeProgramManager* manager) : Operator(9, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
