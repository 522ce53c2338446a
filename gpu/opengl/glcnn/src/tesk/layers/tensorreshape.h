// The elements of a tensor in another shape.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED TensorReshape : public Operator {
public:
    explicit TensorReshape(tesk::ComputeProgramManager* manager) : Operator(23, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
