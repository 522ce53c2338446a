// Every hand-blocked 3x3 convolution on layers that its tile divides.
//
//   FLOPS           a product and a sum are two; the mean of the runs
//   best_FLOPS      the same of the best of nine rounds, from which all ratios are
//   of_limit        parts of what a loop on registers alone reaches with the same instruction set
//   of_sgemm        parts of what the bare matrix product of the layer's size reaches:
//                   weights * col,
//                   without the making of col
//   of_sgemm_peak   parts of what the machine's BLAS reaches on a product that suits it, with all
//                   the vectors that the processor has
//   times_default   times as fast as the operator that the default rule takes for the layer, whose
//                   nine rounds are in turns with these

#include "blocked_convolution.h"

namespace {

using namespace benchmark_support;

const SquareLayer layers[] = {{16, 64}, {32, 64}, {32, 32}, {64, 32}, {64, 16}, {128, 16}};

const bool registered = [] {
    register_members(
        "Convolution_3x3", layers,
        [](benchmark::State& state, const TarnoCPU::OperatorInfo* info, const SquareLayer& layer) {
            run_layer(state, info, layer, layer.channels);
            count_of_product(state, info, layer);
        });
    return true;
}();

}  // namespace
