// ReLU6, Sigmoid, Tanh, Softmax and Linear.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

const float nan = std::numeric_limits<float>::quiet_NaN();
const float inf = std::numeric_limits<float>::infinity();

constexpr const char* all[] = {"ReLU6_Float_Fallback", "Sigmoid_Float_Fallback",
                               "Tanh_Float_Fallback", "Softmax_Float_Fallback",
                               "Linear_Float_Fallback"};

// Runs `values` as one channel each.
std::vector<float> run(const char* name, const std::vector<float>& values,
                       const ParamDict& pd = ParamDict()) {
    auto op = make_operator<OperatorSISOInplace>(name);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    Mat mat = Mat::from_float_array(values.data(), 1, 1, static_cast<int>(values.size()),
                                    TensorShape::CHW, nullptr);
    EXPECT_EQ(0, op->forward(mat, get_default_option()));
    return values_of(mat);
}

ParamDict linear(float alpha, float beta) {
    ParamDict pd;
    pd.set(0, alpha);
    pd.set(1, beta);
    return pd;
}

TEST(Relu6FloatFallback, ClampsToZeroAndSix) {
    EXPECT_EQ((std::vector<float>{0, 0, 0, 3.5f, 6, 6, 6}),
              run(all[0], {-inf, -1, 0, 3.5f, 6, 6.5f, inf}));
}

TEST(Relu6FloatFallback, NanStaysAndSoDoesTheSignOfZero) {
    const auto result = run(all[0], {nan, -0.0f});
    EXPECT_TRUE(std::isnan(result[0]));
    EXPECT_TRUE(std::signbit(result[1]));
}

TEST(SigmoidFloatFallback, RoundsTheExponentialAndComputesTheRestInFloat) {
    const unsigned int seed = 11;
    SCOPED_TRACE(seed);
    const auto values = random_floats(500, seed, -90.0f, 90.0f);
    const auto result = run(all[1], values);
    for (size_t i = 0; i < values.size(); ++i) {
        const float e = static_cast<float>(std::exp(-static_cast<double>(values[i])));
        const float sum = e + 1.0f;
        EXPECT_EQ(1.0f / sum, result[i]);
        // Three roundings of half a unit each. Below the normal range of the exponential's inverse
        // the result is 0.
        const double exact = 1.0 / (1.0 + std::exp(-static_cast<double>(values[i])));
        EXPECT_NEAR(exact, result[i], 3.01 * std::ldexp(1.0, -24) * exact + 1e-38);
    }
}

TEST(SigmoidFloatFallback, HasNoClamp) {
    const auto result = run(all[1], {-1000, 1000, -inf, inf, nan, 0});
    EXPECT_EQ(0.0f, result[0]);
    EXPECT_EQ(1.0f, result[1]);
    EXPECT_EQ(0.0f, result[2]);
    EXPECT_EQ(1.0f, result[3]);
    EXPECT_TRUE(std::isnan(result[4]));
    EXPECT_EQ(0.5f, result[5]);
}

TEST(TanhFloatFallback, IsTheQuotientOfSingleFloatOperations) {
    const unsigned int seed = 12;
    SCOPED_TRACE(seed);
    const auto values = random_floats(500, seed, -20.0f, 20.0f);
    const auto result = run(all[2], values);
    for (size_t i = 0; i < values.size(); ++i) {
        const float e = static_cast<float>(std::exp(-static_cast<double>(values[i])));
        const float p = 1.0f / e;
        const float difference = p - e, sum = p + e;
        EXPECT_EQ(difference / sum, result[i]);
        // With u = 2^-24: e is off by u, which p follows and which is a shift of x by u; p is off
        // by another u, which counts at most half; the last three roundings are u of a result
        // below 1.
        EXPECT_NEAR(std::tanh(static_cast<double>(values[i])), result[i],
                    4.6 * std::ldexp(1.0, -24));
    }
}

TEST(TanhFloatFallback, IsNanBeyondTheRangeOfTheExponential) {
    const auto result = run(all[2], {120, -120, 88.0f, -88.0f, 0, 90, -90});
    EXPECT_TRUE(std::isnan(result[0]));
    EXPECT_TRUE(std::isnan(result[1]));
    EXPECT_EQ(1.0f, result[2]);
    EXPECT_EQ(-1.0f, result[3]);
    EXPECT_EQ(0.0f, result[4]);
    EXPECT_TRUE(std::isnan(result[5]));
    EXPECT_TRUE(std::isnan(result[6]));
}

TEST(SoftmaxFloatFallback, DividesByASumInDouble) {
    for (const int count : {1, 3, 4, 5, 8, 1000}) {
        const unsigned int seed = 13 + static_cast<unsigned int>(count);
        SCOPED_TRACE(seed);
        const auto values = random_floats(static_cast<size_t>(count), seed, -10.0f, 10.0f);
        const auto result = run(all[3], values);
        double sum = 0.0, exact_sum = 0.0;
        for (const float v : values) {
            sum += static_cast<double>(static_cast<float>(std::exp(static_cast<double>(v))));
            exact_sum += std::exp(static_cast<double>(v));
        }
        for (size_t i = 0; i < values.size(); ++i) {
            const float e = static_cast<float>(std::exp(static_cast<double>(values[i])));
            EXPECT_EQ(static_cast<float>(static_cast<double>(e) / sum), result[i]);
            const double exact = std::exp(static_cast<double>(values[i])) / exact_sum;
            // Half a unit each for the exponential, those in the sum, and the quotient.
            EXPECT_NEAR(exact, result[i], 3.01 * std::ldexp(1.0, -24) * exact);
        }
    }
}

TEST(SoftmaxFloatFallback, OfLargeInputsIsNanSinceNoMaximumIsSubtracted) {
    for (const float v : run(all[3], {1000, 1000, 1000}))
        EXPECT_TRUE(std::isnan(v));
    const auto result = run(all[3], {1000, 0});
    EXPECT_TRUE(std::isnan(result[0]));
    EXPECT_EQ(0.0f, result[1]);
}

TEST(SoftmaxFloatFallback, TakesOneRowAndOneColumnOnly) {
    auto op = make_operator<OperatorSISOInplace>(all[3]);
    EXPECT_TRUE(op->check_forward(chw(5, 1, 1)));
    EXPECT_TRUE(op->check_forward(TensorShape(TensorShape::C4HW4, 5, 1, 1, 4)));
    EXPECT_TRUE(op->check_forward(TensorShape(TensorShape::C8HW8, 5, 1, 1, 4)));
    for (const TensorShape& shape : {chw(5, 2, 1), chw(5, 1, 2), chw(1, 1, 5)}) {
        EXPECT_FALSE(op->check_forward(shape));
        AssertRecorder assertions;
        Mat mat(shape, nullptr);
        EXPECT_EQ(-100, op->forward(mat, get_default_option()));
        EXPECT_EQ(1u, assertions.count("false && \"Invalid forward pre-conditions\""));
    }
}

TEST(LinearFloatFallback, RoundsTheProductBeforeTheSum) {
    const unsigned int seed = 14;
    SCOPED_TRACE(seed);
    const auto values = random_floats(300, seed);
    const float alpha = 1.0f / 3.0f, beta = -0.2f;
    const auto result = run(all[4], values, linear(alpha, beta));
    for (size_t i = 0; i < values.size(); ++i) {
        const float product = values[i] * alpha;
        EXPECT_EQ(product + beta, result[i]);
        const double exact = static_cast<double>(values[i]) * alpha + beta;
        const double magnitude = std::fabs(static_cast<double>(values[i]) * alpha) + 0.2;
        EXPECT_NEAR(exact, result[i], sum_error_bound(1, magnitude));
    }
}

TEST(LinearFloatFallback, WithoutParametersEverythingIsZero) {
    EXPECT_EQ((std::vector<float>{0, 0}), run(all[4], {3, -7}));
}

// The same numbers whatever the shape or the layout.
TEST(ActivationFloatFallback, ALayoutIsAFlatRunOfNumbers) {
    const unsigned int seed = 15;
    SCOPED_TRACE(seed);
    const auto values = random_floats(4 * 3 * 5, seed, -8.0f, 8.0f);
    for (const char* name : all) {
        if (std::string(name) == "Softmax_Float_Fallback") continue;
        SCOPED_TRACE(name);
        const ParamDict pd = linear(2.0f, 1.0f);
        const auto expected = run(name, values, pd);
        for (const auto layout : {TensorShape::CHW, TensorShape::C4HW4, TensorShape::C8HW8}) {
            auto op = make_operator<OperatorSISOInplace>(name);
            ASSERT_EQ(0,
                      op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
            Mat mat = Mat::from_float_array(values.data(), 5, 3, 4, layout, nullptr);
            ASSERT_EQ(0, op->forward(mat, get_default_option()));
            EXPECT_EQ(expected, values_of(mat));
        }
    }
}

TEST(ActivationFloatFallback, ATensorOfAnotherElementSizeOrLayoutRaisesTheAssertion) {
    const char* units[] = {"relu6_float_fallback", "sigmoid_float_fallback", "tanh_float_fallback",
                           "softmax_float_fallback", "linear_float_fallback"};
    for (size_t i = 0; i < 5; ++i) {
        for (const TensorShape& shape : {TensorShape(TensorShape::CHW, 4, 1, 1, 2),
                                         TensorShape(TensorShape::FLAT, 4, 1, 1, 4)}) {
            AssertRecorder assertions;
            auto op = make_operator<OperatorSISOInplace>(all[i]);
            Mat mat(shape, nullptr);
            EXPECT_EQ(-100, op->forward(mat, get_default_option()));
            ASSERT_EQ(1u, assertions.count());
            EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
            EXPECT_EQ(units[i], assertions.last().source);
        }
    }
}

TEST(ActivationFloatFallback, ATensorWithoutElementsIsDoneAtOnce) {
    for (const char* name : all) {
        auto op = make_operator<OperatorSISOInplace>(name);
        Mat mat(chw(0, 1, 1), nullptr);
        EXPECT_EQ(0, op->forward(mat, get_default_option()));
        EXPECT_EQ(name, op->name());
    }
}

}  // namespace
