// Transposed depthwise convolution with a kernel of 3 by 3: a place in the tables.
#pragma once

#include "../operator.h"

namespace tesk {

/// There is no generator: `forward` is the base's. The output is never written, and the inputs keep
/// their read counts and textures.
class TESK_TESTED Depthwise_Transpose_Conv2D_3x3 : public Operator {
public:
    explicit Depthwise_Transpose_Conv2D_3x3(tesk::ComputeProgramManager* manager)
        : Operator(16, manager) {}
    void setup(ZQLayerInfo* record) override;
};

}  // namespace tesk
