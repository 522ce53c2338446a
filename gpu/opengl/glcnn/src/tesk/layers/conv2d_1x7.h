// Convolution with a kernel 7 wide and 1 high.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Conv2D_1x7 : public Operator {
public:
    explicit Conv2D_1x7(tesk::ComputeProgramManager* manager) : Operator(8, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
