// What the tests of the hand-blocked convolutions share: layers of random data, tensors on blocks
// of exactly their size, sums in double with their error bounds.
#pragma once

#include <gtest/gtest.h>
#include <tarno/cpu.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/recorders.h"
#include "support/tensors.h"

namespace testing_support {

/// A sum in double, with what bounds the error of the same sum in float.
struct ExactSum {
    double value = 0.0;
    double magnitude = 0.0;
    int64_t terms = 0;

    void add(double term) {
        value += term;
        magnitude += std::abs(term);
        ++terms;
    }
};

inline void expect_sums(const std::vector<ExactSum>& expected, const std::vector<float>& actual) {
    ASSERT_LE(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i) {
        const double bound = sum_error_bound(expected[i].terms, expected[i].magnitude);
        // Written so that a NaN fails.
        ASSERT_TRUE(std::abs(actual[i] - expected[i].value) <= bound)
            << "element " << i << " is " << actual[i] << ", expected " << expected[i].value
            << " within " << bound;
    }
}

/// Floats of their own, one heap block of exactly their size: AddressSanitizer sees the first float
/// before and behind them. A `Mat` of `view` does not own them.
class ExactBlock {
public:
    explicit ExactBlock(const std::vector<float>& values, int misalignment = 0)
        : misalignment(misalignment),
          count(values.size()),
          block(new float[values.size() + misalignment]) {
        if (count != 0) std::memcpy(data(), values.data(), count * sizeof(float));
    }
    float* data() { return block.get() + misalignment; }
    TarnoCPU::Mat view(const TarnoCPU::TensorShape& shape) {
        EXPECT_EQ(static_cast<int64_t>(count), shape.total());
        return TarnoCPU::Mat(shape, data(), nullptr);
    }
    std::vector<float> values() { return std::vector<float>(data(), data() + count); }

private:
    size_t misalignment;
    size_t count;
    std::unique_ptr<float[]> block;
};

inline TarnoCPU::TensorShape c4hw4(int channels, int h, int columns) {
    return TarnoCPU::TensorShape(TarnoCPU::TensorShape::C4HW4, channels / 4, h, columns * 4, 4);
}

/// Planes [c][h][w] to blocks of four channels.
inline std::vector<float> to_blocks(const std::vector<float>& planes, int c, int h, int w) {
    std::vector<float> blocks(planes.size());
    size_t i = 0;
    for (int q = 0; q < c; ++q) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x)
                blocks[((static_cast<size_t>(q / 4) * h + y) * w + x) * 4 + q % 4] = planes[i++];
        }
    }
    return blocks;
}

inline std::vector<float> to_planes(const std::vector<float>& blocks, int c, int h, int w) {
    std::vector<float> planes;
    planes.reserve(blocks.size());
    for (int q = 0; q < c; ++q) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x)
                planes.push_back(
                    blocks[((static_cast<size_t>(q / 4) * h + y) * w + x) * 4 + q % 4]);
        }
    }
    return planes;
}

inline bool in_blocks(const char* name) {
    return TarnoCPU::find_operator(name)->layout_in == TarnoCPU::OperatorInfo::Layout::C4HW4;
}

/// Whether this machine runs the class. A test that needs it says so when it does not.
inline bool machine_runs(const char* name) {
    using Set = TarnoCPU::OperatorInfo::InstructionSet;
    switch (TarnoCPU::find_operator(name)->isa) {
        case Set::Baseline:
            return true;
        case Set::SSE41:
            return __builtin_cpu_supports("sse4.1");
        case Set::AVX:
            return __builtin_cpu_supports("avx");
        case Set::FMA:
            return __builtin_cpu_supports("fma");
        case Set::AVX2:
            return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    }
    return false;
}

/// The parameters of a layer under their ids.
struct LayerParams {
    int num_output = 0;
    int kernel = 0;
    int dilation = 1;
    int stride = 1;
    int pad = 0;
    bool bias = true;
    int weight_count = 0;
    int group = 1;
    int num_input = 0;

    TarnoCPU::ParamDict dict() const {
        TarnoCPU::ParamDict pd;
        pd.set(0, num_output);
        pd.set(1, kernel);
        pd.set(3, dilation);
        pd.set(5, stride);
        pd.set(7, pad);
        pd.set(9, bias ? 1 : 0);
        pd.set(10, weight_count);
        pd.set(11, group);
        pd.set(12, num_input);
        return pd;
    }
};

inline int load(TarnoCPU::OperatorSISO& op, const LayerParams& params, const float* weights,
                const float* bias) {
    return op.load(params.dict(), TarnoCPU::ModelBinFromTarnoWeightBias(weights, bias),
                   {nullptr, 0, 0});
}

inline std::unique_ptr<TarnoCPU::OperatorSISO> make_loaded(const std::string& name,
                                                           const LayerParams& params,
                                                           const std::vector<float>& weights,
                                                           const std::vector<float>& bias) {
    auto op = make_operator(name.c_str());
    if (op != nullptr) {
        EXPECT_EQ(0, load(*op, params, weights.data(), bias.data()));
    }
    return op;
}

/// Answers the request with this number, counted from 0, with null.
class FailingAllocator : public PoisoningAllocator {
public:
    explicit FailingAllocator(int failing_call) : failing_call(failing_call) {}
    void* fastMalloc(unsigned int size) override {
        fail = calls == failing_call;
        return PoisoningAllocator::fastMalloc(size);
    }

private:
    int failing_call;
};

/// The name of a class as the name of a test.
inline std::string class_name_of(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

/// The unit of a class: its name in small letters.
inline std::string unit_of(std::string class_name) {
    for (char& c : class_name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return class_name;
}

}  // namespace testing_support
