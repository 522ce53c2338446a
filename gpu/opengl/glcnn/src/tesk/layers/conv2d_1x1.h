// Pointwise convolution.
#pragma once

#include "../operator.h"

namespace tesk {

/// With `tricksMode` 0 an output of at least 2 by 2 pixels is made four pixels at a time, and above
/// four channels two slices at a time; else pixel by pixel.
class TESK_TESTED Conv2D_1x1 : public Operator {
public:
    explicit Conv2D_1x1(tesk::ComputeProgramManager* manager) : Operator(0, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
