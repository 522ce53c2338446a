// Dense layer.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED FullConnection : public Operator {
public:
    explicit FullConnection(tesk::ComputeProgramManager* manager) : Operator(27, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardFirst(inputs, outputs); }
};

}  // namespace tesk
