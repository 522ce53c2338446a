// Stand-alone activation.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Activation : public Operator {
public:
    explicit Activation(tesk::ComputeProgramManager* manager) : Operator(26, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
