// Maximum and average pooling.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Pooling : public Operator {
public:
    explicit Pooling(tesk::ComputeProgramManager* manager) : Operator(17, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
