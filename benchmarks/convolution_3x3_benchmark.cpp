// Every hand-blocked 3x3 convolution on layers that its tile divides.
//
//   FLOPS      a product and a sum are two
//   of_limit   parts of what a loop on registers alone reaches with the same instruction set
//   of_sgemm   parts of what the bare matrix product of the same size reaches: weights * col,
//              without the making of col, and with all the vectors that the processor has

#include <cblas.h>

#include <map>

#include "blocked_convolution.h"

namespace {

using namespace benchmark_support;

const SquareLayer layers[] = {{16, 64}, {32, 64}, {32, 32}, {64, 32}, {64, 16}, {128, 16}};

/// Floating-point operations a second of the product behind a layer, the best of several rounds.
double product_rate(const SquareLayer& layer) {
    static std::map<std::pair<int, int>, double> known;
    double& rate = known[{layer.channels, layer.pixels}];
    if (rate > 0.0) return rate;
    const int m = layer.channels, k = m * 9, n = layer.pixels * layer.pixels;
    const std::vector<float> weights(static_cast<size_t>(m) * k, 0.01f);
    const std::vector<float> col(static_cast<size_t>(k) * n, 0.5f);
    std::vector<float> product(static_cast<size_t>(m) * n);
    const double operations = 2.0 * m * k * n;
    const int repeats = static_cast<int>(5e8 / operations) + 1;
    for (int round = 0; round < 20; ++round) {
        const double start = cpu_seconds();
        for (int i = 0; i < repeats; ++i) {
            cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1.0f, weights.data(), k,
                        col.data(), n, 0.0f, product.data(), n);
            benchmark::ClobberMemory();
        }
        const double seconds = cpu_seconds() - start;
        if (seconds > 0.0) rate = std::max(rate, operations * repeats / seconds);
    }
    return rate;
}

const bool registered = [] {
    register_members(
        "Convolution_3x3", layers,
        [](benchmark::State& state, const TarnoCPU::OperatorInfo* info, const SquareLayer& layer) {
            run_layer(state, info, layer, layer.channels);
            state.counters["of_sgemm"] = benchmark::Counter(
                state.counters["FLOPS"] / product_rate(layer), benchmark::Counter::kIsRate);
        });
    return true;
}();

}  // namespace
