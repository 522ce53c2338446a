// Channels into pixels for factors of 1 and above, pixels into channels below.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED PixelShuffle : public Operator {
public:
    explicit PixelShuffle(tesk::ComputeProgramManager* manager) : Operator(22, manager) {}
    void setup(ZQLayerInfo* record) override;
    void forward(Images& inputs, Images& outputs) override { forwardOneToOne(inputs, outputs); }
};

}  // namespace tesk
