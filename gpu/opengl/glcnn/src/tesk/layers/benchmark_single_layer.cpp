#include "benchmark_single_layer.h"

#include "../tricks/tricks_benchmark_single_layer.h"

namespace tesk {

void Benchmark_Single_Layer::setup(ZQLayerInfo* record) {
    use<Tricks_Benchmark_Single_Layer>(record);
}

void Benchmark_Single_Layer::forward(Images& inputs, Images& outputs) {
    if (tricks != nullptr) tricks->compute(inputs, outputs.empty() ? nullptr : outputs[0].get());
}

}  // namespace tesk
