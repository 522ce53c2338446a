#include "tricks_benchmark_single_layer.h"

namespace tesk {

void Tricks_Benchmark_Single_Layer::setup(ZQLayerInfo*) {}

void Tricks_Benchmark_Single_Layer::compute(std::vector<std::shared_ptr<tesk::Image>>&,
                                            tesk::Image*) {}

void Tricks_Benchmark_Single_Layer::compute(tesk::Image*, tesk::Image*) {}

}  // namespace tesk
