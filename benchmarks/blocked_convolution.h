// One hand-blocked convolution of the list on one layer, measured.
#pragma once

#include <benchmark/benchmark.h>
#include <tarno/cpu.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "arithmetic_limit.h"

namespace benchmark_support {

/// `channels` in and out; `pixels` rows and columns of the top.
struct SquareLayer {
    int channels;
    int pixels;
};

/// Runs `info` on the layer, with a bias, and counts `FLOPS` (a product and a sum are two) and
/// `of_limit`, the part of `arithmetic_limit`. `inputs` channels are summed in an output. Returns
/// the floats of the bottom.
inline int64_t run_layer(benchmark::State& state, const TarnoCPU::OperatorInfo* info,
                         const SquareLayer& layer, int inputs) {
    using namespace TarnoCPU;
    const int c = layer.channels, size = layer.pixels * info->stride;
    const int taps = info->kernel_h * info->kernel_w;
    const std::vector<float> weights(static_cast<size_t>(c) * inputs * taps, 0.01f);
    const std::vector<float> bias(c, 0.5f);
    ParamDict pd;
    pd.set(0, c);
    pd.set(1, info->kernel_w);
    pd.set(3, 1);
    pd.set(5, info->stride);
    pd.set(7, info->kernel_w / 2);
    pd.set(9, 1);
    pd.set(10, static_cast<int>(weights.size()));
    pd.set(11, c / inputs);
    pd.set(12, c);
    std::unique_ptr<OperatorSISO> op(dynamic_cast<OperatorSISO*>(info->creator()));
    op->load(pd, ModelBinFromTarnoWeightBias(weights.data(), bias.data()), {nullptr, 0, 0});

    const bool blocks = info->layout_in == OperatorInfo::Layout::C4HW4;
    Mat bottom(blocks ? TensorShape(TensorShape::C4HW4, c / 4, size, size * 4, 4)
                      : TensorShape(TensorShape::CHW, c, size, size, 4),
               nullptr);
    for (int64_t i = 0; i < bottom.shape.total(); ++i)
        bottom.ptr<float>()[i] = static_cast<float>(i % 17) * 0.1f;
    PoolAllocator pool;
    {
        Option opt = get_default_option();
        opt.blob_allocator = &pool;
        opt.workspace_allocator = &pool;
        Mat top;
        for (auto _ : state) {
            if (op->forward(bottom, top, opt) != 0) {
                state.SkipWithError("forward");
                break;
            }
            benchmark::ClobberMemory();
        }
    }
    const double operations =
        2.0 * static_cast<double>(weights.size()) * layer.pixels * layer.pixels;
    const double done = operations * static_cast<double>(state.iterations());
    state.counters["FLOPS"] = benchmark::Counter(done, benchmark::Counter::kIsRate);
    state.counters["of_limit"] =
        benchmark::Counter(done / arithmetic_limit(info->isa), benchmark::Counter::kIsRate);
    return bottom.shape.total();
}

/// Registers `run` for every class whose name starts with `prefix`, which this machine runs, and
/// which is hand-blocked; on every layer that its blocking divides.
template <size_t Layers, typename Run>
void register_members(const char* prefix, const SquareLayer (&layers)[Layers], const Run& run) {
    using namespace TarnoCPU;
    size_t count = 0;
    const OperatorInfo* rows = operator_list(&count);
    for (const OperatorInfo* info = rows; info != rows + count; ++info) {
        const bool member = std::strncmp(info->name, prefix, std::strlen(prefix)) == 0 &&
                            std::strstr(info->name, "SGEMM") == nullptr;
        if (!member || !machine_has(info->isa)) continue;
        for (const SquareLayer& layer : layers) {
            const int size = layer.pixels * info->stride;
            if (layer.channels % info->output_multiple != 0 ||
                layer.channels % info->input_multiple != 0 || size % info->height_multiple != 0 ||
                size % info->width_multiple != 0) {
                continue;
            }
            const std::string name = std::string(info->name) + "/" +
                                     std::to_string(layer.channels) + "ch/" +
                                     std::to_string(layer.pixels) + "px";
            benchmark::RegisterBenchmark(name.c_str(),
                                         [=](benchmark::State& state) { run(state, info, layer); });
        }
    }
}

}  // namespace benchmark_support
