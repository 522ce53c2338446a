// A tensor of up to four channels under another shape.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED TensorSqueeze : public Operator {
public:
    explicit TensorSqueeze(tesk::ComputeProgramManager* manager) : Operator(24, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
