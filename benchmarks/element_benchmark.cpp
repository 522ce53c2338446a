// Element operators: bytes read and written a second, and parts of memcpy's speed.
#include <benchmark/benchmark.h>
#include <tarno/cpu.h>

#include <memory>
#include <vector>

#include "memory_traffic.h"

namespace {

using namespace TarnoCPU;

template <typename Base>
std::unique_ptr<Base> loaded(benchmark::State& state, const char* name, int op_type) {
    const OperatorInfo* info = find_operator(name);
    if (info == nullptr) {
        state.SkipWithError("no such operator");
        return nullptr;
    }
    if (info->isa == OperatorInfo::InstructionSet::AVX && !__builtin_cpu_supports("avx")) {
        state.SkipWithError("this processor has no AVX");
        return nullptr;
    }
    std::unique_ptr<Base> op(dynamic_cast<Base*>(info->creator()));
    ParamDict pd;
    pd.set(0, op_type);
    if (op == nullptr ||
        op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}) != 0) {
        state.SkipWithError("the operator does not load");
        return nullptr;
    }
    return op;
}

Mat tensor(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0)), size = static_cast<int>(state.range(1));
    Mat mat(TensorShape(TensorShape::CHW, c, size, size, 4), nullptr);
    for (int64_t i = 0; i < mat.shape.total(); ++i) {
        mat.ptr<float>()[i] = static_cast<float>(i * 7919 % 2003) - 1000.0f;
    }
    return mat;
}

void activation(benchmark::State& state, const char* name) {
    const auto op = loaded<OperatorSISOInplace>(state, name, 0);
    if (op == nullptr) return;
    Mat mat = tensor(state);
    for (auto _ : state) {
        op->forward(mat, get_default_option());
        benchmark::ClobberMemory();
    }
    const size_t bytes = static_cast<size_t>(mat.shape.total()) * sizeof(float);
    benchmark_support::report_traffic(state, bytes, bytes);
}

// The top comes out of a warm pool.
void eltwise(benchmark::State& state, const char* name, int op_type, size_t bottom_count) {
    const auto op = loaded<OperatorMIMO>(state, name, op_type);
    if (op == nullptr) return;
    std::vector<Mat> bottoms;
    for (size_t k = 0; k < bottom_count; ++k)
        bottoms.push_back(tensor(state));
    PoolAllocator pool;
    Option opt;
    opt.blob_allocator = &pool;
    std::vector<Mat> tops(1);
    for (auto _ : state) {
        tops[0] = Mat();
        op->forward(bottoms, tops, opt);
        benchmark::ClobberMemory();
    }
    const size_t bytes = static_cast<size_t>(bottoms[0].shape.total()) * sizeof(float);
    // Each further bottom goes once over the top again.
    benchmark_support::report_traffic(state, (2 * bottom_count - 2) * bytes,
                                      (bottom_count - 1) * bytes);
    tops[0] = Mat();
}

void tensor_sizes(benchmark::internal::Benchmark* made) {
    made->Args({16, 32})->Args({16, 128})->Args({64, 128})->Args({64, 256});
}

BENCHMARK_CAPTURE(activation, ReLU_Float_SSE, "ReLU_Float_SSE")->Apply(tensor_sizes);
BENCHMARK_CAPTURE(activation, ReLU_Float_AVX, "ReLU_Float_AVX")->Apply(tensor_sizes);
BENCHMARK_CAPTURE(activation, ReLU6_Float_SSE, "ReLU6_Float_SSE")->Apply(tensor_sizes);
BENCHMARK_CAPTURE(activation, ReLU_Float_Fallback, "ReLU_Float_Fallback")->Apply(tensor_sizes);
BENCHMARK_CAPTURE(eltwise, product, "Elementwise_Float_SSE", 0, 2)->Apply(tensor_sizes);
BENCHMARK_CAPTURE(eltwise, sum, "Elementwise_Float_SSE", 1, 2)->Apply(tensor_sizes);
BENCHMARK_CAPTURE(eltwise, maximum, "Elementwise_Float_SSE", 2, 2)->Apply(tensor_sizes);
BENCHMARK_CAPTURE(eltwise, sum_of_three, "Elementwise_Float_SSE", 1, 3)->Apply(tensor_sizes);

}  // namespace
