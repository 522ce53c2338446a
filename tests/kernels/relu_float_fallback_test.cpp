#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

std::vector<float> run(std::vector<float> values, float slope) {
    ParamDict pd;
    pd.set(0, slope);
    auto op = make_operator<OperatorSISOInplace>("ReLU_Float_Fallback");
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    Mat mat = Mat::from_float_array(values.data(), static_cast<int>(values.size()), 1, 1,
                                    TensorShape::CHW, nullptr);
    EXPECT_EQ(0, op->forward(mat, get_default_option()));
    return values_of(mat);
}

TEST(ReluFloatFallback, SlopeScalesNegativesAndLeavesPositives) {
    EXPECT_EQ((std::vector<float>{-1.0f * 0.1f, 1.0f, 0.0f}), run({-1.0f, 1.0f, 0.0f}, 0.1f));
}

TEST(ReluFloatFallback, SlopeZeroClampsNegatives) {
    EXPECT_EQ((std::vector<float>{0.0f, 1.0f}), run({-1.0f, 1.0f}, 0.0f));
}

TEST(ReluFloatFallback, NanStays) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_TRUE(std::isnan(run({nan}, 0.0f)[0]));
    EXPECT_TRUE(std::isnan(run({nan}, 0.1f)[0]));
}

TEST(ReluFloatFallback, SlopeOfNanCountsAsNotZero) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const auto result = run({-1.0f, 2.0f}, nan);
    EXPECT_TRUE(std::isnan(result[0]));
    EXPECT_EQ(2.0f, result[1]);
}

TEST(ReluFloatFallback, ATensorOfOtherElementSizeRaisesTheAssertion) {
    AssertRecorder assertions;
    auto op = make_operator<OperatorSISOInplace>("ReLU_Float_Fallback");
    Mat mat(TensorShape(TensorShape::CHW, 1, 1, 4, 2), nullptr);
    EXPECT_EQ(-100, op->forward(mat, get_default_option()));
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
    EXPECT_EQ("relu_float_fallback", assertions.last().source);
}

}  // namespace
