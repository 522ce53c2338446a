// Tensors one behind the other along the channels.
#pragma once

#include "../operator.h"

namespace tesk {

/// The generator lowers the read counts.
class TESK_TESTED Concat : public Operator {
public:
    explicit Concat(tesk::ComputeProgramManager* manager) : Operator(19, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override;
};

}  // namespace tesk
