// Every hand-blocked 1x1 convolution on layers that its blocking divides.
//
//   FLOPS      a product and a sum are two
//   of_limit   parts of what a loop on registers alone reaches with the same instruction set

#include "blocked_convolution.h"

namespace {

using namespace benchmark_support;

const SquareLayer layers[] = {{16, 64}, {32, 32},  {64, 64}, {64, 32},
                              {64, 16}, {128, 16}, {256, 8}, {256, 16}};

const bool registered = [] {
    register_members(
        "Convolution_1x1", layers,
        [](benchmark::State& state, const TarnoCPU::OperatorInfo* info, const SquareLayer& layer) {
            run_layer(state, info, layer, layer.channels);
        });
    return true;
}();

}  // namespace
