// Transposed convolution with a kernel of 2 by 2.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Transpose_Conv2D_2x2 : public Operator {
public:
    explicit Transpose_Conv2D_2x2(tesk::ComputeProgramManager* manager) : Operator(12, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
