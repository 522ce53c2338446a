// Transposed convolution with a kernel of 3 by 3.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Transpose_Conv2D_3x3 : public Operator {
public:
    explicit Transpose_Conv2D_3x3(tesk::ComputeProgramManager* manager) : Operator(11, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
