// Every hand-blocked 3x3 depthwise convolution on layers that its blocking divides, padding 1.
//
//   FLOPS           a product and a sum are two; the mean of the runs
//   best_FLOPS      the same of the best of nine rounds, from which all ratios are
//   of_limit        parts of what a loop on registers alone reaches with the same instruction set
//   of_sgemm_peak   parts of what the machine's BLAS reaches on a product that suits it, with all
//                   the vectors that the processor has
//   times_default   times as fast as the operator that the default rule takes for the layer, whose
//                   nine rounds are in turns with these
//   bytes_per_second
//                   bottom read once, top written once; the copy with the border comes on top
//   of_memcpy       parts of memcpy's speed at the same traffic

#include "blocked_convolution.h"
#include "memory_traffic.h"

namespace {

using namespace benchmark_support;

const SquareLayer layers[] = {{16, 128}, {32, 64}, {64, 64}, {64, 32}, {128, 32}, {128, 16}};

const bool registered = [] {
    register_members(
        "Depthewise_Convolution_3x3", layers,
        [](benchmark::State& state, const TarnoCPU::OperatorInfo* info, const SquareLayer& layer) {
            const size_t read = static_cast<size_t>(run_layer(state, info, layer, 1));
            const size_t written =
                static_cast<size_t>(layer.channels) * layer.pixels * layer.pixels;
            report_traffic(state, read * sizeof(float), written * sizeof(float));
        });
    return true;
}();

}  // namespace
