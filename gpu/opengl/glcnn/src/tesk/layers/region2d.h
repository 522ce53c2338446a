// Decoder of a detection net's output.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Region2D : public Operator {
public:
    explicit Region2D(tesk::ComputeProgramManager* manager) : Operator(21, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardFirst(inputs, outputs); }
};

}  // namespace tesk
