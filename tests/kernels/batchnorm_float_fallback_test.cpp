#include <gtest/gtest.h>

#include <cmath>

#include "support/convolutions.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr const char* name = "Batchnorm_Float_Fallback";

struct Arrays {
    std::vector<float> slope, mean, variance, bias;
    float eps = 0.001f;

    Arrays(int channels, unsigned int seed)
        : slope(random_floats(static_cast<size_t>(channels), seed)),
          mean(random_floats(static_cast<size_t>(channels), seed + 1)),
          variance(random_floats(static_cast<size_t>(channels), seed + 2, 0.1f, 2.0f)),
          bias(random_floats(static_cast<size_t>(channels), seed + 3)) {}

    ModelBinFromTarnoBatchnorm bin() const {
        return ModelBinFromTarnoBatchnorm(slope.data(), mean.data(), variance.data(), bias.data());
    }
    ParamDict params() const {
        ParamDict pd;
        pd.set(0, static_cast<int>(slope.size()));
        pd.set(1, eps);
        return pd;
    }
    // The formula on one element, operation by operation.
    float apply(float x, size_t i) const {
        const float sum = variance[i] + eps;
        const float d = static_cast<float>(std::sqrt(static_cast<double>(sum)));
        const float weighted = slope[i] * mean[i];
        const float a = bias[i] - weighted / d;
        const float b = slope[i] / d;
        const float product = x * b;
        return product + a;
    }
    // At most ten roundings, each of a number no larger than `magnitude`.
    void expect_near(float x, size_t i, float result) const {
        const double d = std::sqrt(static_cast<double>(variance[i]) + eps);
        const double exact = (x - static_cast<double>(mean[i])) / d * slope[i] + bias[i];
        const double magnitude = std::fabs(x * slope[i] / d) + std::fabs(mean[i] * slope[i] / d) +
                                 std::fabs(static_cast<double>(bias[i]));
        EXPECT_NEAR(exact, result, sum_error_bound(10, magnitude));
    }
};

std::unique_ptr<OperatorSISOInplace> load(const Arrays& arrays) {
    auto op = make_operator<OperatorSISOInplace>(name);
    EXPECT_EQ(0, op->load(arrays.params(), arrays.bin(), {nullptr, 0, 0}));
    return op;
}

TEST(BatchnormFloatFallback, TheIndexIsTheChannelTheRowOrTheColumn) {
    const struct {
        int c, h, w;
        int dimension;
    } shapes[] = {{5, 3, 7, 3}, {2, 1, 1, 3}, {3, 1, 9, 3}, {8, 4, 1, 3},  {1, 5, 7, 2},
                  {1, 2, 1, 2}, {1, 1, 7, 1}, {1, 1, 1, 1}, {4, 16, 17, 3}};
    unsigned int seed = 20;
    for (const auto& shape : shapes) {
        SCOPED_TRACE(testing::Message()
                     << "seed " << seed << ", " << shape.c << "x" << shape.h << "x" << shape.w);
        const int count = shape.dimension == 3 ? shape.c : shape.dimension == 2 ? shape.h : shape.w;
        const Arrays arrays(count, seed);
        auto op = load(arrays);
        Mat mat = random_tensor(shape.c, shape.h, shape.w, seed + 9);
        const auto before = values_of(mat);
        ASSERT_EQ(0, op->forward(mat, get_default_option()));
        const auto after = values_of(mat);
        const size_t run = before.size() / static_cast<size_t>(count);
        for (size_t i = 0; i < after.size(); ++i) {
            EXPECT_EQ(arrays.apply(before[i], i / run), after[i]);
            arrays.expect_near(before[i], i / run, after[i]);
        }
        seed += 10;
    }
}

TEST(BatchnormFloatFallback, AnEpsilonStoredAsTheIntegerZeroIsZero) {
    Arrays arrays(3, 5);
    arrays.eps = 0.0f;
    ParamDict pd;
    pd.set(0, 3);
    pd.set(1, 0);
    auto op = make_operator<OperatorSISOInplace>(name);
    ASSERT_EQ(0, op->load(pd, arrays.bin(), {nullptr, 0, 0}));
    Mat mat = random_tensor(3, 2, 2, 6);
    const auto before = values_of(mat);
    ASSERT_EQ(0, op->forward(mat, get_default_option()));
    for (size_t i = 0; i < 12; ++i)
        EXPECT_EQ(arrays.apply(before[i], i / 4), values_of(mat)[i]);
}

TEST(BatchnormFloatFallback, ATensorWithoutDimensionsIsLeftAlone) {
    const Arrays arrays(3, 5);
    auto op = load(arrays);
    Mat mat(chw(3, 0, 4), nullptr);
    EXPECT_EQ(0, op->forward(mat, get_default_option()));
    Mat odd(chw(3, -1, -4), nullptr);
    const auto before = std::vector<float>(12, 1.5f);
    std::memcpy(odd.data, before.data(), 12 * sizeof(float));
    EXPECT_EQ(0, op->forward(odd, get_default_option()));
    EXPECT_EQ(before, values_of(odd));
}

TEST(BatchnormFloatFallback, ChannelsBeyondTheArraysMeetZeros) {
    const Arrays arrays(3, 40);
    auto op = load(arrays);
    Mat mat = random_tensor(5, 2, 3, 41);
    const auto before = values_of(mat);
    ASSERT_EQ(0, op->forward(mat, get_default_option()));
    const auto after = values_of(mat);
    for (size_t i = 0; i < 18; ++i)
        EXPECT_EQ(arrays.apply(before[i], i / 6), after[i]);
    for (size_t i = 18; i < 30; ++i)
        EXPECT_EQ(0.0f, after[i]);
    Mat row = random_tensor(1, 1, 9, 42);
    ASSERT_EQ(0, op->forward(row, get_default_option()));
    EXPECT_EQ(0.0f, values_of(row)[8]);
}

TEST(BatchnormFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    const Arrays arrays(3, 5);
    const ModelBinFromTarnoBatchnorm bin = arrays.bin();
    for (const int type : {0, 1, 2, 3}) {
        auto op = make_operator<OperatorSISOInplace>(name);
        EXPECT_EQ(-100, op->load(arrays.params(), WithoutArray(bin, type, 0), {nullptr, 0, 0}));
        Mat mat = random_tensor(3, 2, 2, 6);
        EXPECT_EQ(-100, op->forward(mat, get_default_option()));
    }
    auto op = make_operator<OperatorSISOInplace>(name);
    EXPECT_EQ(-100, op->load(ParamDict(), bin, {nullptr, 0, 0}));
}

TEST(BatchnormFloatFallback, ATensorOfAnotherLayoutRaisesTheAssertion) {
    auto op = load(Arrays(4, 5));
    for (const TensorShape& shape :
         {TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), TensorShape(TensorShape::CHW, 1, 1, 4, 1)}) {
        AssertRecorder assertions;
        Mat mat(shape, nullptr);
        EXPECT_EQ(-100, op->forward(mat, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ("batchnorm_float_fallback", assertions.last().source);
    }
    EXPECT_EQ(name, op->name());
}

}  // namespace
