// A layer that does nothing, for timing what surrounds layers.
#pragma once

#include "../operator.h"

namespace tesk {

class TESK_TESTED Benchmark_Single_Layer : public Operator {
public:
    explicit Benchmark_Single_Layer(tesk::ComputeProgramManager* manager) : Operator(28, manager) {}
    /// The record may be null.
    void setup(ZQLayerInfo* record) override;
    /// Calls the generator with the inputs and the first output, null when there is none.
    void forward(Images& inputs, Images& outputs) override;
};

}  // namespace tesk
