// One hand-blocked convolution of the list on one layer, measured beside the operator that the
// default rule takes for that layer.
#pragma once

#include <benchmark/benchmark.h>
#include <modelkit/net_builder.h>
#include <tarno/cpu.h>
#include <tarno/model.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "arithmetic_limit.h"
#include "matrix_product.h"

namespace benchmark_support {

/// `channels` in and out; `pixels` rows and columns of the top.
struct SquareLayer {
    int channels;
    int pixels;
};

/// A layer's operator with its weights, a bias, and a bottom in the layout that it takes.
class LoadedLayer {
public:
    /// `inputs` channels are summed in an output. Kernel and stride are those of `shape`.
    LoadedLayer(const TarnoCPU::OperatorInfo& info, const TarnoCPU::OperatorInfo& shape,
                const SquareLayer& layer, int inputs) {
        using namespace TarnoCPU;
        const int c = layer.channels, size = layer.pixels * shape.stride;
        const std::vector<float> weights(
            static_cast<size_t>(c) * inputs * shape.kernel_h * shape.kernel_w, 0.01f);
        const std::vector<float> bias(static_cast<size_t>(c), 0.5f);
        ParamDict pd;
        pd.set(0, c);
        pd.set(1, shape.kernel_w);
        pd.set(3, 1);
        pd.set(5, shape.stride);
        pd.set(7, shape.kernel_w / 2);
        pd.set(9, 1);
        pd.set(10, static_cast<int>(weights.size()));
        pd.set(11, c / inputs);
        pd.set(12, c);
        made.reset(dynamic_cast<OperatorSISO*>(info.creator()));
        made->load(pd, ModelBinFromTarnoWeightBias(weights.data(), bias.data()), {nullptr, 0, 0});

        const bool blocks = info.layout_in == OperatorInfo::Layout::C4HW4;
        bottom = Mat(blocks ? TensorShape(TensorShape::C4HW4, c / 4, size, size * 4, 4)
                            : TensorShape(TensorShape::CHW, c, size, size, 4),
                     nullptr);
        for (int64_t i = 0; i < bottom.shape.total(); ++i) {
            bottom.ptr<float>()[i] = static_cast<float>(i % 17) * 0.1f;
        }
        opt = get_default_option();
        opt.blob_allocator = &pool;
        opt.workspace_allocator = &pool;
        operations = 2.0 * static_cast<double>(weights.size()) * layer.pixels * layer.pixels;
    }

    bool run() {
        const bool good = made->forward(bottom, top, opt) == 0;
        benchmark::ClobberMemory();
        return good;
    }

    double operations = 0.0;  ///< of one run; a product and a sum are two
    int64_t bottom_floats() const { return bottom.shape.total(); }

private:
    TarnoCPU::PoolAllocator pool;
    TarnoCPU::Option opt;
    std::unique_ptr<TarnoCPU::OperatorSISO> made;
    TarnoCPU::Mat bottom;
    TarnoCPU::Mat top;
};

/// What the default rule takes for a layer of this kind, kernel and stride: a net says so.
inline const TarnoCPU::OperatorInfo& default_operator(const TarnoCPU::OperatorInfo& info) {
    static std::map<std::string, const TarnoCPU::OperatorInfo*> known;
    const TarnoCPU::OperatorInfo*& found =
        known[info.layer + std::to_string(info.kernel_w) + "s" + std::to_string(info.stride)];
    if (found != nullptr) return *found;
    modelkit::NetBuilder builder;
    const int image = builder.input(4);
    if (std::strcmp(info.layer, "ConvolutionDepthWise") == 0) {
        builder.depthwise(image, info.kernel_w, info.stride, info.kernel_w / 2);
    } else {
        builder.conv(image, 4, info.kernel_w, info.stride, info.kernel_w / 2);
    }
    std::string path = (std::filesystem::temp_directory_path() / "tarno_layer_XXXXXX").string();
    const int descriptor = mkstemp(path.data());
    if (descriptor >= 0) close(descriptor);
    ZQNetLoader loader;
    if (!builder.save(path).ok() || !loader.LoadFile(path.c_str(), false)) {
        std::fprintf(stderr, "no file at %s for the default rule\n", path.c_str());
        std::exit(1);
    }
    std::filesystem::remove(path);
    TarnoCPU::TarnoNet net;
    net.load_tarno_net_with_inference_config(loader, nullptr);
    found = TarnoCPU::find_operator(net.layers.at(1)->inference_config.op_creator);
    return *found;
}

/// Seconds of a run of each, the best of several rounds in turns.
inline std::pair<double, double> seconds_in_turns(LoadedLayer& a, LoadedLayer& b) {
    constexpr double round_seconds = 1e-3;
    constexpr int rounds = 9;
    LoadedLayer* const layers[2] = {&a, &b};
    int repeats[2] = {1, 1};
    double best[2] = {1e9, 1e9};
    for (int round = 0; round < rounds; ++round) {
        for (int k = 0; k < 2; ++k) {
            double seconds = 0.0;
            for (;;) {
                const double start = cpu_seconds();
                for (int i = 0; i < repeats[k]; ++i) layers[k]->run();
                seconds = cpu_seconds() - start;
                if (seconds >= round_seconds) break;
                repeats[k] *= 2;
            }
            best[k] = std::min(best[k], seconds / repeats[k]);
        }
    }
    return {best[0], best[1]};
}

/// Runs `info` on the layer, on the library's clock for the mean, then in turns with the default
/// operator for the ratios, which are of the best round of each. Counts what the benchmarks' heads
/// describe. `inputs` channels are summed in an output. Returns the floats of the bottom.
inline int64_t run_layer(benchmark::State& state, const TarnoCPU::OperatorInfo* info,
                         const SquareLayer& layer, int inputs) {
    LoadedLayer member(*info, *info, layer, inputs);
    for (auto _ : state) {
        if (!member.run()) {
            state.SkipWithError("forward");
            break;
        }
    }
    using benchmark::Counter;
    state.counters["FLOPS"] =
        Counter(member.operations * static_cast<double>(state.iterations()), Counter::kIsRate);
    LoadedLayer by_rule(default_operator(*info), *info, layer, inputs);
    const std::pair<double, double> seconds = seconds_in_turns(member, by_rule);
    const double best = member.operations / seconds.first;
    state.counters["best_FLOPS"] = best;
    state.counters["of_limit"] = best / arithmetic_limit(info->isa);
    state.counters["of_sgemm_peak"] = best / product_peak();
    state.counters["times_default"] = seconds.second / seconds.first;
    return member.bottom_floats();
}

/// `of_sgemm` of a layer that is one product of its weights with its patches.
inline void count_of_product(benchmark::State& state, const TarnoCPU::OperatorInfo* info,
                             const SquareLayer& layer) {
    const int taps = info->kernel_h * info->kernel_w;
    state.counters["of_sgemm"] =
        state.counters["best_FLOPS"] /
        product_rate(layer.channels, layer.channels * taps, layer.pixels * layer.pixels);
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
