// Nearest and bilinear upsampling.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED UpSampling : public Operator {
public:
    explicit UpSampling(tesk::ComputeProgramManager* manager) : Operator(25, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
