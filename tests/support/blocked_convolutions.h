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

#include "support/processor.h"
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
    ASSERT_EQ(expected.size(), actual.size());
    for (size_t i = 0; i < actual.size(); ++i) {
        const double bound = sum_error_bound(expected[i].terms, expected[i].magnitude);
        // Written so that a NaN fails.
        ASSERT_TRUE(std::abs(actual[i] - expected[i].value) <= bound)
            << "element " << i << " is " << actual[i] << ", expected " << expected[i].value
            << " within " << bound;
    }
}

/// Two float results of the same sums, in whatever order each took them.
inline void expect_same_sums(const std::vector<ExactSum>& sums, const std::vector<float>& one,
                             const std::vector<float>& other) {
    expect_sums(sums, one);
    expect_sums(sums, other);
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

/// Channels on both sides, and the pixels of the bottom.
struct LayerSize {
    int inputs, outputs, h, w;
};

inline std::ostream& operator<<(std::ostream& stream, const LayerSize& size) {
    return stream << size.inputs << " to " << size.outputs << " channels of " << size.h << "x"
                  << size.w;
}

/// The tests of one class of the list, by name.
class MemberTest : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        info = TarnoCPU::find_operator(GetParam());
        ASSERT_NE(nullptr, info);
        if (!machine_has(info->isa)) GTEST_SKIP() << "needs an instruction set that is not here";
    }

    bool blocks() const { return info->layout_in == TarnoCPU::OperatorInfo::Layout::C4HW4; }
    TarnoCPU::TensorShape bottom_shape(const LayerSize& size) const {
        return shape_of(size.inputs, size.h, size.w);
    }
    TarnoCPU::TensorShape top_shape(const LayerSize& size) const {
        return shape_of(size.outputs, size.h / info->stride, size.w / info->stride);
    }
    /// Planes of a bottom in the layout of the class, on a block of exactly their size.
    ExactBlock block_of(const std::vector<float>& planes, const LayerSize& size,
                        int misalignment = 0) const {
        return ExactBlock(blocks() ? to_blocks(planes, size.inputs, size.h, size.w) : planes,
                          misalignment);
    }
    /// A top of the class as planes.
    std::vector<float> planes_of(const TarnoCPU::Mat& top) const {
        const TarnoCPU::TensorShape& shape = top.shape;
        return blocks() ? to_planes(values_of(top), shape.c * 4, shape.h, shape.w / 4)
                        : values_of(top);
    }

    const TarnoCPU::OperatorInfo* info = nullptr;

private:
    TarnoCPU::TensorShape shape_of(int channels, int h, int columns) const {
        return blocks() ? c4hw4(channels, h, columns) : chw(channels, h, columns);
    }
};

/// The unit of a class: its name in small letters.
inline std::string unit_of(std::string class_name) {
    for (char& c : class_name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return class_name;
}

}  // namespace testing_support
