#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "support/guarded_floats.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

struct Activation {
    const char* name;
    const char* unit;
    float ceiling;
};

class ReluVector : public ::testing::TestWithParam<Activation> {
protected:
    void SetUp() override {
        const OperatorInfo* info = find_operator(GetParam().name);
        ASSERT_NE(nullptr, info);
        if (info->isa == OperatorInfo::InstructionSet::AVX && !__builtin_cpu_supports("avx")) {
            GTEST_SKIP() << "this processor has no AVX";
        }
        op = make_operator<OperatorSISOInplace>(GetParam().name);
        ASSERT_NE(nullptr, op);
    }
    int load(float slope) {
        ParamDict pd;
        pd.set(0, slope);
        return op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0});
    }
    std::vector<float> run(const std::vector<float>& values) {
        Mat mat = Mat::from_float_array(values.data(), static_cast<int>(values.size()), 1, 1,
                                        TensorShape::CHW, nullptr);
        EXPECT_EQ(0, op->forward(mat, get_default_option()));
        return values_of(mat);
    }
    std::unique_ptr<OperatorSISOInplace> op;
};

INSTANTIATE_TEST_SUITE_P(Classes, ReluVector,
                         ::testing::Values(Activation{"ReLU_Float_SSE", "relu_float_sse",
                                                      std::numeric_limits<float>::infinity()},
                                           Activation{"ReLU_Float_AVX", "relu_float_avx",
                                                      std::numeric_limits<float>::infinity()},
                                           Activation{"ReLU6_Float_SSE", "relu6_float_sse", 6.0f}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(ReluVector, ClampsEveryElementOfAnyLengthAndTouchesNothingBeside) {
    ASSERT_EQ(0, load(0.0f));
    for (int count = 1; count <= 80; ++count) {
        for (const size_t offset : {0, 1, 2, 3}) {
            SCOPED_TRACE(count);
            const auto values = random_floats(static_cast<size_t>(count), 100 + count, -10, 10);
            GuardedFloats tensor(chw(1, 1, count), values, offset);
            Mat view = tensor.view();
            ASSERT_EQ(0, op->forward(view, get_default_option()));
            auto expected = values;
            for (float& x : expected)
                x = std::fmin(std::fmax(x, 0.0f), GetParam().ceiling);
            ASSERT_EQ(expected, tensor.values());
            ASSERT_TRUE(tensor.guards_intact());
        }
    }
}

TEST_P(ReluVector, EveryLayoutIsTheSameFlatRun) {
    ASSERT_EQ(0, load(0.0f));
    const auto values = random_floats(3 * 5 * 8, 9, -10, 10);
    for (const auto layout : {TensorShape::CHW, TensorShape::C4HW4, TensorShape::C8HW8}) {
        Mat mat = Mat::from_float_array(values.data(), 8, 5, 3, layout, nullptr);
        const TensorShape shape = mat.shape;
        EXPECT_EQ(0, op->forward(mat, get_default_option()));
        EXPECT_EQ(shape, mat.shape);
        EXPECT_EQ(run(values), values_of(mat));
    }
}

TEST_P(ReluVector, TheSlopeIsNotUsed) {
    ASSERT_EQ(0, load(0.1f));
    EXPECT_EQ((std::vector<float>{0.0f, 2.0f, 0.0f}), run({-1.0f, 2.0f, -100.0f}));
}

TEST_P(ReluVector, NanAndMinusZeroBecomeZeroInVectorsAndInTheTail) {
    ASSERT_EQ(0, load(0.0f));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const float odd : {nan, -nan, -0.0f}) {
        for (const float x : run(std::vector<float>(43, odd))) {
            EXPECT_EQ(0.0f, x);
            EXPECT_FALSE(std::signbit(x));
        }
    }
}

TEST_P(ReluVector, InfinitiesAreClampedAsNumbersAre) {
    ASSERT_EQ(0, load(0.0f));
    const float infinity = std::numeric_limits<float>::infinity();
    EXPECT_EQ((std::vector<float>{GetParam().ceiling, 0.0f}), run({infinity, -infinity}));
}

TEST_P(ReluVector, AnEmptyTensorIsNoFailure) {
    ASSERT_EQ(0, load(0.0f));
    Mat empty(chw(0, 4, 4), nullptr);
    EXPECT_EQ(0, op->forward(empty, get_default_option()));
}

TEST_P(ReluVector, AnotherElementSizeOrLayoutRaisesTheAssertion) {
    ASSERT_EQ(0, load(0.0f));
    AssertRecorder assertions;
    Mat halves(TensorShape(TensorShape::CHW, 1, 1, 4, 2), nullptr);
    EXPECT_EQ(-100, op->forward(halves, get_default_option()));
    Mat packed(TensorShape(TensorShape::FLAT, 1, 1, 4, 4), nullptr);
    EXPECT_EQ(-100, op->forward(packed, get_default_option()));
    ASSERT_EQ(2u, assertions.count("false && \"Invalid forward pre-conditions\""));
    EXPECT_EQ(GetParam().unit, assertions.last().source);
}

TEST_P(ReluVector, CarriesItsName) {
    EXPECT_EQ(GetParam().name, op->name());
}

TEST(Relu6FloatSse, SevenAndAHalfGivesSixAndMinusOneGivesZero) {
    auto op = make_operator<OperatorSISOInplace>("ReLU6_Float_SSE");
    float values[] = {7.5f, -1.0f, 6.0f, 5.5f, 7.5f};
    Mat mat(chw(1, 1, 5), values, nullptr);
    EXPECT_EQ(0, op->forward(mat, get_default_option()));
    EXPECT_EQ((std::vector<float>{6.0f, 0.0f, 6.0f, 5.5f, 6.0f}), values_of(mat));
}

}  // namespace
