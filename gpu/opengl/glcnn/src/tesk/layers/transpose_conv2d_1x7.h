// Transposed convolution with a kernel 7 wide and 1 high.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Transpose_Conv2D_1x7 : public Operator {
public:
    explicit Transpose_Conv2D_1x7(tesk::ComputeProgramManager* manager) : Operator(13, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
