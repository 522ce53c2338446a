#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "support/guarded_floats.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

struct Dense {
    int outputs;
    int inputs;
    std::vector<float> weights;
    std::vector<float> bias;

    Dense(int outputs, int inputs, bool with_bias, unsigned int seed)
        : outputs(outputs),
          inputs(inputs),
          weights(random_floats(static_cast<size_t>(outputs) * inputs, seed)),
          bias(with_bias ? random_floats(static_cast<size_t>(outputs), seed + 1)
                         : std::vector<float>()) {}

    ParamDict params() const {
        ParamDict pd;
        pd.set(0, outputs);
        pd.set(1, inputs);
        pd.set(9, bias.empty() ? 0 : 1);
        pd.set(10, static_cast<int>(weights.size()));
        return pd;
    }
    std::unique_ptr<OperatorSISO> loaded(const char* name) const {
        auto op = make_operator(name);
        // The arrays are gone after `load`.
        const std::vector<float> weights_now = weights, bias_now = bias;
        EXPECT_EQ(
            0, op->load(params(), ModelBinFromTarnoWeightBias(weights_now.data(), bias_now.data()),
                        {nullptr, 0, 0}));
        return op;
    }
    // The first `used` inputs of output p, and the sum of the magnitudes.
    double exact(int p, const std::vector<float>& x, int used, double* magnitude) const {
        double sum = bias.empty() ? 0.0 : bias[static_cast<size_t>(p)];
        *magnitude = std::abs(sum);
        for (int i = 0; i < used; ++i) {
            const double product =
                static_cast<double>(weights[static_cast<size_t>(p) * inputs + i]) *
                x[static_cast<size_t>(i)];
            sum += product;
            *magnitude += std::abs(product);
        }
        return sum;
    }
};

const char* const m1 = "FullConnection_Float_SSE_M1";
const char* const by_sgemm = "FullConnection_Float_SGEMM";

::testing::AssertionResult agrees(const char* name, const Dense& dense, const TensorShape& shape,
                                  int used, unsigned int seed) {
    const auto x = random_floats(static_cast<size_t>(dense.inputs), seed);
    GuardedFloats bottom(shape, x, seed % 4);
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    {
        Mat top;
        const int result = dense.loaded(name)->forward(bottom.view(), top, opt);
        if (result != 0) return ::testing::AssertionFailure() << "forward gives " << result;
        if (top.shape != chw(1, 1, dense.outputs) || top.allocator != &blobs) {
            return ::testing::AssertionFailure() << "shape or allocator of top";
        }
        if (*top.refcount != 1) return ::testing::AssertionFailure() << "written behind the top";
        const auto out = values_of(top);
        for (int p = 0; p < dense.outputs; ++p) {
            double magnitude = 0.0;
            const double exact = dense.exact(p, x, used, &magnitude);
            const double error = std::abs(out[static_cast<size_t>(p)] - exact);
            if (!(error <= sum_error_bound(used + 1, magnitude))) {
                return ::testing::AssertionFailure()
                       << "output " << p << " is " << out[static_cast<size_t>(p)] << ", not "
                       << exact;
            }
        }
    }
    if (workspace.calls != 0 || blobs.alive != 0) return ::testing::AssertionFailure() << "memory";
    return ::testing::AssertionSuccess();
}

class FullConnectionRow : public ::testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Classes, FullConnectionRow, ::testing::Values(m1, by_sgemm),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(FullConnectionRow, AgreesWithTheExactSumsOverManySizes) {
    unsigned int seed = 1;
    for (const bool with_bias : {false, true}) {
        for (const int outputs : {1, 2, 3, 4, 5, 7, 8, 12, 33}) {
            for (const int inputs : {4, 8, 12, 20, 64, 132}) {
                SCOPED_TRACE(seed);
                const Dense dense(outputs, inputs, with_bias, seed++);
                ASSERT_TRUE(agrees(GetParam(), dense, chw(1, 1, inputs), inputs, seed))
                    << outputs << " of " << inputs;
            }
        }
    }
}

TEST_P(FullConnectionRow, TakesABottomOfAnyShapeWithAsManyElements) {
    const Dense dense(6, 24, true, 3);
    for (const TensorShape& shape :
         {chw(24, 1, 1), chw(1, 24, 1), chw(2, 3, 4), chw(6, 2, 2), chw(1, 1, 24)}) {
        EXPECT_TRUE(agrees(GetParam(), dense, shape, 24, 5));
    }
}

TEST_P(FullConnectionRow, ABottomOfAnotherCountLayoutOrElementSizeRaisesTheAssertion) {
    AssertRecorder assertions;
    auto op = Dense(4, 8, false, 1).loaded(GetParam());
    Mat top;
    EXPECT_EQ(-100, op->forward(random_tensor(1, 1, 7, 1), top, get_default_option()));
    EXPECT_EQ(-100, op->forward(random_tensor(3, 3, 1, 1), top, get_default_option()));
    EXPECT_EQ(-100, op->forward(Mat(TensorShape(TensorShape::C4HW4, 1, 1, 8, 4), nullptr), top,
                                get_default_option()));
    EXPECT_EQ(-100, op->forward(Mat(TensorShape(TensorShape::CHW, 1, 1, 8, 2), nullptr), top,
                                get_default_option()));
    EXPECT_EQ(4u, assertions.count("false && \"Invalid forward pre-conditions\""));
    EXPECT_EQ(GetParam() == m1 ? "fullconnection_float_sse_m1" : "fullconnection_float_sgemm",
              assertions.last().source);
    EXPECT_TRUE(top.empty());
}

TEST_P(FullConnectionRow, TheTopKeepsTheBottomsFractionalBits) {
    Mat bottom = random_tensor(1, 1, 8, 1);
    bottom.shape.frac_bits = 9;
    Mat top;
    ASSERT_EQ(0,
              Dense(4, 8, false, 1).loaded(GetParam())->forward(bottom, top, get_default_option()));
    EXPECT_EQ(TensorShape(TensorShape::CHW, 1, 1, 4, 4, 9), top.shape);
}

TEST_P(FullConnectionRow, WeightsThatTheModelLacksCountAsZero) {
    Dense dense(5, 8, true, 7);
    const auto x = random_floats(8, 8);
    // Two rows and a half.
    dense.weights.resize(20);
    auto op = dense.loaded(GetParam());
    dense.weights.resize(40, 0.0f);
    Mat top;
    ASSERT_EQ(0, op->forward(Mat::from_float_array(x.data(), 8, 1, 1, TensorShape::CHW, nullptr),
                             top, get_default_option()));
    for (int p = 0; p < 5; ++p) {
        double magnitude = 0.0;
        const double exact = dense.exact(p, x, 8, &magnitude);
        EXPECT_NEAR(exact, top.ptr<float>()[p], sum_error_bound(9, magnitude));
    }
}

TEST_P(FullConnectionRow, NoMemoryForTheTopGivesMinus100) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    Mat top;
    EXPECT_EQ(
        -100,
        Dense(4, 8, true, 1).loaded(GetParam())->forward(random_tensor(1, 1, 8, 1), top, opt));
    EXPECT_TRUE(top.empty());
}

TEST_P(FullConnectionRow, AFailedLoadGivesMinus100AndSoDoesEveryForwardBehindIt) {
    const float numbers[32] = {};
    const ModelBinFromTarnoWeightBias arrays(numbers, numbers);
    const auto expect_failure = [&](int outputs, int bias_term, int weight_count) {
        auto op = make_operator(GetParam());
        ParamDict pd;
        pd.set(0, outputs);
        pd.set(1, 8);
        pd.set(9, bias_term);
        pd.set(10, weight_count);
        EXPECT_EQ(-100, op->load(pd, arrays, {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(random_tensor(1, 1, 8, 1), top, get_default_option()));
        EXPECT_TRUE(top.empty());
    };
    expect_failure(4, 0, 0);
    expect_failure(4, 0, -32);
    expect_failure(0, 1, 32);
    expect_failure(-4, 1, 32);
    expect_failure(2147483647, 0, 32);
}

TEST_P(FullConnectionRow, AnOperatorThatWasNeverLoadedGivesMinus100) {
    AssertRecorder assertions;
    auto op = make_operator(GetParam());
    Mat top;
    EXPECT_EQ(-100, op->forward(Mat(chw(0, 0, 0), nullptr), top, get_default_option()));
    EXPECT_EQ(-100, op->forward(random_tensor(1, 1, 8, 1), top, get_default_option()));
}

TEST_P(FullConnectionRow, NoOutputsGiveMinus100) {
    const float numbers[8] = {};
    auto op = make_operator(GetParam());
    ParamDict pd;
    pd.set(1, 8);
    pd.set(10, 8);
    ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(numbers, nullptr), {nullptr, 0, 0}));
    Mat top;
    EXPECT_EQ(-100, op->forward(random_tensor(1, 1, 8, 1), top, get_default_option()));
}

TEST_P(FullConnectionRow, CarriesItsName) {
    EXPECT_EQ(GetParam(), Dense(4, 4, false, 1).loaded(GetParam())->name());
}

TEST(FullConnectionFloatSseM1, SixInputsSumFourOnly) {
    for (const int inputs : {5, 6, 7, 9}) {
        EXPECT_TRUE(agrees(m1, Dense(6, inputs, true, 4), chw(1, 1, inputs), inputs / 4 * 4, 6));
    }
    // Fewer than four leave the bias.
    EXPECT_TRUE(agrees(m1, Dense(3, 3, true, 4), chw(1, 1, 3), 0, 6));
}

TEST(FullConnectionFloatSgemm, AnyCountOfInputsIsSummed) {
    for (const int inputs : {1, 3, 6, 7, 9}) {
        EXPECT_TRUE(agrees(by_sgemm, Dense(6, inputs, true, 4), chw(1, 1, inputs), inputs, 6));
    }
}

TEST(FullConnectionFloatSseM1, AddsEveryFourthProductAndThenTheLanesOneZeroTwoThree) {
    for (const int outputs : {1, 4, 6}) {
        const int inputs = 44;
        const Dense dense(outputs, inputs, true, 30);
        const auto x = random_floats(static_cast<size_t>(inputs), 31);
        Mat top;
        ASSERT_EQ(0, dense.loaded(m1)->forward(
                         Mat::from_float_array(x.data(), inputs, 1, 1, TensorShape::CHW, nullptr),
                         top, get_default_option()));
        for (int p = 0; p < outputs; ++p) {
            float lanes[4] = {};
            for (int i = 0; i < inputs; ++i) {
                lanes[i % 4] +=
                    dense.weights[static_cast<size_t>(p * inputs + i)] * x[static_cast<size_t>(i)];
            }
            float sum = lanes[1];
            sum += lanes[0];
            sum += lanes[2];
            sum += lanes[3];
            EXPECT_EQ(sum + dense.bias[static_cast<size_t>(p)], top.ptr<float>()[p]);
        }
    }
}

TEST(FullConnectionFloatSseM1, AgreesWithTheProductOfMatricesUpToTheOrderOfTheSum) {
    for (const int outputs : {4, 16, 64}) {
        for (const int inputs : {4, 32, 256}) {
            const Dense dense(outputs, inputs, true, 40);
            const auto x = random_floats(static_cast<size_t>(inputs), 41);
            const Mat bottom =
                Mat::from_float_array(x.data(), inputs, 1, 1, TensorShape::CHW, nullptr);
            Mat first, second;
            ASSERT_EQ(0, dense.loaded(m1)->forward(bottom, first, get_default_option()));
            ASSERT_EQ(0, dense.loaded(by_sgemm)->forward(bottom, second, get_default_option()));
            ASSERT_EQ(first.shape, second.shape);
            for (int p = 0; p < outputs; ++p) {
                double magnitude = 0.0;
                dense.exact(p, x, inputs, &magnitude);
                EXPECT_NEAR(first.ptr<float>()[p], second.ptr<float>()[p],
                            2 * sum_error_bound(inputs + 1, magnitude));
            }
        }
    }
}

}  // namespace
