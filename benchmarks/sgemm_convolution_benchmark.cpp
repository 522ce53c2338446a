// Convolutions on the matrix product, beside what they are made of.
//
// Each row runs one operator and, in turn with it, the parts of its work on their own: the border,
// im2col, the bare product, the way of a pixel-major result back into channels, the bias, and
// memcpy as the measure of the memory. Counters are made of the fastest round of each, because what
// else runs on the machine only ever adds, and adds more to the longer part; the time of the row is
// the mean of the operator's rounds.
//
//   best_us, GFLOPs                  of the operator; two operations for a product and its sum
//   product, im2col, bias, border,   the parts in percent of the operator
//   back
//   rest                             100 less those
//   im2col_GBs, bias_GBs             bytes of `col`, or of top, over the time of the part
//   im2col_copy_GBs, bias_copy_GBs   the same for memcpy of as many bytes
//
// The rest is what no part covers: the checks, two to four calls of the allocator (a pool, as in an
// extractor), copies of headers with their atomic counts. That is about a microsecond; what goes
// beyond it, of either sign, is the caches. A part on its own works on blocks of its own, so the
// operator finds its `col` evicted by that of the parts where both are larger than a cache, up to a
// tenth of the whole. The depthwise members call the BLAS once for every channel; those calls are
// in the product, and with one row or one column of nine numbers they are most of it.

#include <benchmark/benchmark.h>
#include <cblas.h>
#include <tarno/cpu.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cpu/operator_x86/bias.h"
#include "cpu/operator_x86/im2col.h"

namespace {

using namespace TarnoCPU;

/// How an operator comes to its product.
enum class Form {
    Bottom,        ///< weights * bottom
    EverySecond,   ///< weights * every second pixel
    ChannelMajor,  ///< weights * col
    PixelMajor,    ///< col * weights, then transposed
    DepthRows,     ///< one channel's weights * its col
    DepthColumns,  ///< one channel's col * its weights
};

struct Operation {
    const char* name;
    int kernel_h, kernel_w, stride, pad_h, pad_w;
    Form form;
};

const Operation conv3x3s1 = {"Convolution_3x3s1_Float_SGEMM", 3, 3, 1, 1, 1, Form::ChannelMajor};
const Operation conv3x3s2 = {"Convolution_3x3s2_Float_SGEMM", 3, 3, 2, 1, 1, Form::ChannelMajor};
const Operation conv4x4s1 = {"Convolution_4x4s1_Float_SGEMM", 4, 4, 1, 1, 1, Form::ChannelMajor};
const Operation conv1x1s1 = {"Convolution_1x1s1_Float_SGEMM", 1, 1, 1, 0, 0, Form::Bottom};
const Operation conv1x1s2 = {"Convolution_1x1s2_Float_SGEMM", 1, 1, 2, 0, 0, Form::EverySecond};
const Operation conv3x1_m1 = {
    "Convolution_3x1s1_Float_SGEMM_M1", 3, 1, 1, 1, 0, Form::ChannelMajor};
const Operation conv1x3_m1 = {
    "Convolution_1x3s1_Float_SGEMM_M1", 1, 3, 1, 0, 1, Form::ChannelMajor};
const Operation conv3x1 = {"Convolution_3x1s1_Float_SGEMM", 3, 1, 1, 1, 0, Form::PixelMajor};
const Operation conv1x3 = {"Convolution_1x3s1_Float_SGEMM", 1, 3, 1, 0, 1, Form::PixelMajor};
const Operation depth3x3s1 = {
    "Depthewise_Convolution_3x3s1_Float_SGEMM", 3, 3, 1, 1, 1, Form::DepthRows};
const Operation depth3x3s2 = {
    "Depthewise_Convolution_3x3s2_Float_SGEMM", 3, 3, 2, 1, 1, Form::DepthColumns};

/// A layer: the operation and its bottom. A new row here is a new benchmark.
struct LayerShape {
    const Operation& operation;
    int in, out, h, w;
};

const LayerShape layer_shapes[] = {
    // classic shapes of image classification
    {conv3x3s1, 64, 64, 56, 56},
    {conv3x3s2, 64, 64, 56, 56},
    {conv1x1s1, 64, 64, 56, 56},
    {conv1x1s2, 64, 64, 56, 56},
    {conv3x3s1, 128, 128, 28, 28},
    {conv3x3s2, 128, 128, 28, 28},
    {conv1x1s1, 128, 128, 28, 28},
    {conv1x1s2, 128, 128, 28, 28},
    {conv3x3s1, 512, 512, 7, 7},
    {conv3x3s2, 512, 512, 7, 7},
    {conv1x1s1, 512, 512, 7, 7},
    {conv1x1s2, 512, 512, 7, 7},
    // the layers of the shipped model: down ...
    {conv3x3s2, 3, 16, 256, 256},
    {conv1x1s1, 16, 32, 64, 64},
    {conv1x1s1, 32, 32, 64, 64},
    {conv1x1s1, 32, 48, 32, 32},
    {conv1x1s1, 48, 48, 32, 32},
    {conv1x1s1, 48, 80, 16, 16},
    {conv1x1s1, 80, 80, 16, 16},
    {conv1x1s1, 80, 128, 8, 8},
    {conv1x1s1, 128, 128, 8, 8},
    {conv1x1s1, 128, 128, 4, 4},
    // ... and up
    {conv1x1s1, 256, 128, 8, 8},
    {conv1x1s1, 128, 80, 8, 8},
    {conv1x1s1, 160, 80, 16, 16},
    {conv1x1s1, 80, 48, 16, 16},
    {conv1x1s1, 96, 48, 32, 32},
    {conv1x1s1, 48, 32, 32, 32},
    {conv1x1s1, 64, 32, 64, 64},
    {conv1x1s1, 32, 16, 64, 64},
    {conv1x1s1, 32, 16, 128, 128},
    {conv1x1s1, 16, 16, 128, 128},
    {conv3x3s1, 16, 1, 256, 256},
    // 3x3 layers of an encoder-decoder on 256 x 256
    {conv3x3s1, 16, 16, 128, 128},
    {conv3x3s2, 16, 32, 128, 128},
    {conv3x3s1, 32, 32, 64, 64},
    {conv3x3s2, 32, 64, 64, 64},
    {conv3x3s1, 64, 64, 32, 32},
    {conv3x3s1, 96, 96, 16, 16},
    {conv3x3s1, 128, 128, 8, 8},
    // the other members of the family
    {conv4x4s1, 64, 64, 56, 56},
    {conv3x1_m1, 64, 64, 56, 56},
    {conv3x1, 64, 64, 56, 56},
    {conv1x3_m1, 64, 64, 56, 56},
    {conv1x3, 64, 64, 56, 56},
    {conv3x1_m1, 128, 128, 8, 8},
    {conv3x1, 128, 128, 8, 8},
    {conv1x3_m1, 128, 128, 8, 8},
    {conv1x3, 128, 128, 8, 8},
    {depth3x3s1, 64, 64, 56, 56},
    {depth3x3s2, 64, 64, 56, 56},
    {depth3x3s1, 128, 128, 8, 8},
    {depth3x3s2, 128, 128, 8, 8},
};

std::vector<float> random_floats(int64_t count) {
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    std::vector<float> values(static_cast<size_t>(count));
    for (float& value : values)
        value = distribution(engine);
    return values;
}

void multiply(int64_t M, int64_t K, int64_t N, const float* A, const float* B, float* C) {
    const int m = static_cast<int>(M), k = static_cast<int>(K), n = static_cast<int>(N);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1.0f, A, k, B, n, 0.0f, C, n);
}

double seconds_of(const std::function<void()>& part) {
    const auto start = std::chrono::steady_clock::now();
    part();
    benchmark::ClobberMemory();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double fastest(const std::vector<double>& rounds) {
    return rounds.empty() ? 0.0 : *std::min_element(rounds.begin(), rounds.end());
}

bool depthwise(const LayerShape& layer) {
    return layer.operation.form == Form::DepthRows || layer.operation.form == Form::DepthColumns;
}

ParamDict parameters_of(const LayerShape& layer, int weights) {
    const Operation& operation = layer.operation;
    ParamDict pd;
    pd.set(0, layer.out);
    pd.set(1, operation.kernel_w);
    pd.set(2, operation.kernel_h);
    pd.set(3, 1);
    pd.set(5, operation.stride);
    pd.set(7, operation.pad_w);
    pd.set(8, operation.pad_h);
    pd.set(9, 1);
    pd.set(10, weights);
    pd.set(11, depthwise(layer) ? layer.in : 1);
    pd.set(12, layer.in);
    return pd;
}

void run(benchmark::State& state, const LayerShape& layer) {
    const Operation& operation = layer.operation;
    const Form form = operation.form;
    const int window = operation.kernel_h * operation.kernel_w;
    const int64_t taps = int64_t{depthwise(layer) ? 1 : layer.in} * window;
    const std::vector<float> weights = random_floats(layer.out * taps);
    const std::vector<float> bias_numbers = random_floats(layer.out);

    UnlockedPoolAllocator pool;
    Option opt;
    opt.blob_allocator = opt.workspace_allocator = &pool;
    const std::unique_ptr<OperatorSISO> op(
        dynamic_cast<OperatorSISO*>(find_operator(operation.name)->creator()));
    op->load(parameters_of(layer, static_cast<int>(weights.size())),
             ModelBinFromTarnoWeightBias(weights.data(), bias_numbers.data()), {nullptr, 0, 0});

    const std::vector<float> bottom_numbers = random_floats(int64_t{layer.in} * layer.h * layer.w);
    const Mat bottom = Mat::from_float_array(bottom_numbers.data(), layer.w, layer.h, layer.in,
                                             TensorShape::CHW, nullptr);
    Mat top, bordered;
    if (op->forward(bottom, top, opt) != 0) {
        state.SkipWithError("forward failed");
        return;
    }
    const auto make_border = [&] {
        copy_make_border(bottom, bordered, operation.pad_h, operation.pad_h, operation.pad_w,
                         operation.pad_w, 0, 0.0f, &pool, 1);
    };
    make_border();

    const int64_t pixels = int64_t{top.shape.h} * top.shape.w;
    const int64_t columns = depthwise(layer) ? layer.in * taps : taps;
    std::vector<float> col(static_cast<size_t>(columns * pixels));
    std::vector<float> result(static_cast<size_t>(layer.out * pixels));
    const std::vector<float> source =
        random_floats(static_cast<int64_t>(std::max(col.size(), result.size())));

    Im2col work;
    work.source = bordered.ptr<float>();
    work.size = bordered.shape.total();
    work.plane = int64_t{bordered.shape.h} * bordered.shape.w;
    work.row = bordered.shape.w;
    work.channels = layer.in;
    work.kernel_h = operation.kernel_h;
    work.kernel_w = operation.kernel_w;
    work.dilation_h = work.dilation_w = 1;
    work.stride_h = work.stride_w = operation.stride;
    work.out_h = top.shape.h;
    work.out_w = top.shape.w;
    Im2col plane = work;
    plane.channels = 1;

    std::function<void()> im2col, product, back;
    switch (form) {
        case Form::Bottom:
            product = [&] {
                multiply(layer.out, taps, pixels, weights.data(), bottom.ptr<float>(),
                         result.data());
            };
            break;
        case Form::EverySecond:
            im2col = [&] {
                gather_every_second(bottom.ptr<float>(), layer.in, layer.h, layer.w, pixels,
                                    col.data());
            };
            break;
        case Form::ChannelMajor:
            im2col = [&] { im2col_channel_major(work, col.data()); };
            break;
        case Form::PixelMajor:
            im2col = [&] { im2col_pixel_major(work, taps, col.data()); };
            product = [&] {
                multiply(pixels, taps, layer.out, col.data(), weights.data(), result.data());
            };
            back = [&] { transpose(result.data(), pixels, layer.out, top.ptr<float>()); };
            break;
        case Form::DepthRows:
            im2col = [&] { im2col_channel_major(work, col.data()); };
            product = [&] {
                for (int64_t q = 0; q < layer.in; ++q) {
                    multiply(1, taps, pixels, weights.data() + q * taps,
                             col.data() + q * taps * pixels, result.data() + q * pixels);
                }
            };
            break;
        case Form::DepthColumns:
            im2col = [&] {
                for (int64_t q = 0; q < layer.in; ++q) {
                    plane.source = work.source + q * work.plane;
                    plane.size = work.size - q * work.plane;
                    im2col_pixel_major(plane, taps, col.data() + q * taps * pixels);
                }
            };
            product = [&] {
                for (int64_t q = 0; q < layer.in; ++q) {
                    multiply(pixels, taps, 1, col.data() + q * taps * pixels,
                             weights.data() + q * taps, result.data() + q * pixels);
                }
            };
            break;
    }
    if (!product) {
        product = [&] {
            multiply(layer.out, taps, pixels, weights.data(), col.data(), result.data());
        };
    }
    const auto add = [&] {
        add_bias(result.data(), layer.out, pixels, bias_numbers.data(), layer.out);
    };
    const auto copy = [&](size_t floats, float* to) {
        return seconds_of([&] { std::memcpy(to, source.data(), floats * sizeof(float)); });
    };

    std::vector<double> whole, borders, cols, products, backs, biases, col_copies, bias_copies;
    for (auto _ : state) {
        whole.push_back(seconds_of([&] { op->forward(bottom, top, opt); }));
        state.SetIterationTime(whole.back());
        if (operation.pad_h + operation.pad_w > 0) borders.push_back(seconds_of(make_border));
        if (im2col) cols.push_back(seconds_of(im2col));
        products.push_back(seconds_of(product));
        if (back) backs.push_back(seconds_of(back));
        biases.push_back(seconds_of(add));
        if (im2col) col_copies.push_back(copy(col.size(), col.data()));
        bias_copies.push_back(copy(result.size(), result.data()));
    }

    const double total = fastest(whole);
    double rest = 100.0;
    const auto share = [&](const char* name, const std::vector<double>& times) {
        const double percent = 100.0 * fastest(times) / total;
        rest -= percent;
        state.counters[name] = percent;
    };
    share("product", products);
    share("im2col", cols);
    share("bias", biases);
    share("border", borders);
    share("back", backs);
    state.counters["rest"] = rest;
    state.counters["best_us"] = 1e6 * total;
    state.counters["GFLOPs"] = 2e-9 * static_cast<double>(layer.out * taps * pixels) / total;
    const auto rate = [&](const char* name, size_t floats, const std::vector<double>& times) {
        if (times.empty()) return;
        state.counters[name] = 1e-9 * static_cast<double>(floats * sizeof(float)) / fastest(times);
    };
    rate("im2col_GBs", col.size(), cols);
    rate("im2col_copy_GBs", col.size(), col_copies);
    rate("bias_GBs", result.size(), biases);
    rate("bias_copy_GBs", result.size(), bias_copies);
}

}  // namespace

int main(int argc, char** argv) {
    for (const LayerShape& layer : layer_shapes) {
        const std::string name = std::string(layer.operation.name) + "/" +
                                 std::to_string(layer.in) + "x" + std::to_string(layer.h) + "x" +
                                 std::to_string(layer.w) + "/" + std::to_string(layer.out);
        benchmark::RegisterBenchmark(name.c_str(), [&layer](benchmark::State& s) { run(s, layer); })
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond)
            ->MinTime(0.2);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
