// A generator of nothing, for timing the way to it.
#pragma once

#include "tricks.h"

namespace tesk {

class TESK_TESTED Tricks_Benchmark_Single_Layer : public Tricks {
public:
    using Tricks::Tricks;
    void setup(ZQLayerInfo* record) override;
    void compute(std::vector<std::shared_ptr<tesk::Image>>& inputs, tesk::Image* output) override;
    void compute(tesk::Image* input, tesk::Image* output) override;
};

}  // namespace tesk
