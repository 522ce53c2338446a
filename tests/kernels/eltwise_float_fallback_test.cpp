#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "cpu/operator/eltwise_float_fallback.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr const char* name = "Eltwise_Float_Fallback";
const float nan = std::numeric_limits<float>::quiet_NaN();

std::unique_ptr<OperatorMIMO> load(int op_type) {
    ParamDict pd;
    pd.set(0, op_type);
    auto op = make_operator<OperatorMIMO>(name);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    return op;
}

// The type information of a class behind the operator contract is not exported.
__attribute__((no_sanitize("undefined"))) void set_coeffs(OperatorMIMO* op, const Mat& coeffs) {
    static_cast<Eltwise_Float_Fallback*>(op)->coeffs = coeffs;
}

Mat row(const std::vector<float>& values) {
    return Mat::from_float_array(values.data(), static_cast<int>(values.size()), 1, 1,
                                 TensorShape::CHW, nullptr);
}

std::vector<float> run(OperatorMIMO* op, const std::vector<Mat>& bottoms) {
    PoisoningAllocator blobs;
    Option opt;
    opt.blob_allocator = &blobs;
    std::vector<Mat> tops(1);
    EXPECT_EQ(0, op->forward(bottoms, tops, opt));
    EXPECT_EQ(bottoms[0].shape, tops[0].shape);
    EXPECT_EQ(&blobs, tops[0].allocator);
    auto values = values_of(tops[0]);
    tops.clear();
    EXPECT_EQ(0, blobs.alive);
    return values;
}

TEST(EltwiseFloatFallback, BottomsAreCombinedOneAfterTheOther) {
    unsigned int seed = 30;
    for (const int op_type : {0, 1, 2})
        for (const int count : {2, 3, 5})
            for (const int c : {1, 3, 4, 5, 8}) {
                SCOPED_TRACE(testing::Message()
                             << "op " << op_type << ", " << count << " bottoms, seed " << seed);
                std::vector<Mat> bottoms;
                for (int k = 0; k < count; ++k)
                    bottoms.push_back(random_tensor(c, 3, 7, seed++));
                const auto result = run(load(op_type).get(), bottoms);
                ASSERT_EQ(static_cast<size_t>(c) * 21, result.size());
                for (size_t i = 0; i < result.size(); ++i) {
                    float chain = values_of(bottoms[0])[i];
                    double exact = chain, magnitude = std::fabs(chain);
                    for (int k = 1; k < count; ++k) {
                        const float v = values_of(bottoms[static_cast<size_t>(k)])[i];
                        if (op_type == 0) {
                            chain = chain * v;
                            exact = exact * v;
                            magnitude = std::fabs(exact);
                        } else if (op_type == 1) {
                            chain = chain + v;
                            exact = exact + v;
                            magnitude += std::fabs(v);
                        } else {
                            chain = std::max(chain, v);
                            exact = std::max<double>(exact, v);
                            magnitude = 0.0;
                        }
                    }
                    ASSERT_EQ(chain, result[i]);
                    ASSERT_LE(std::fabs(exact - result[i]), sum_error_bound(count, magnitude));
                }
            }
}

TEST(EltwiseFloatFallback, TheFirstOfAMaximumStaysWhereEitherIsNan) {
    const auto result =
        run(load(2).get(), {row({nan, 1.0f, 2.0f, -0.0f}), row({5.0f, nan, 3.0f, 0.0f})});
    EXPECT_TRUE(std::isnan(result[0]));
    EXPECT_EQ(1.0f, result[1]);
    EXPECT_EQ(3.0f, result[2]);
    EXPECT_TRUE(std::signbit(result[3]));
}

TEST(EltwiseFloatFallback, AnUnknownKindLeavesTheTopAsItWasAllocated) {
    const auto result = run(load(3).get(), {row({1, 2}), row({3, 4})});
    EXPECT_TRUE(std::isnan(result[0]));
    EXPECT_TRUE(std::isnan(result[1]));
}

TEST(EltwiseFloatFallback, WithoutAParameterItIsAProduct) {
    auto op = make_operator<OperatorMIMO>(name);
    ASSERT_EQ(
        0, op->load(ParamDict(), ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    EXPECT_EQ((std::vector<float>{3, 8}), run(op.get(), {row({1, 2}), row({3, 4})}));
}

TEST(EltwiseFloatFallback, FactorsWeighASumAndALoadTakesThemAway) {
    auto op = load(1);
    set_coeffs(op.get(), row({2.0f, 0.5f, -1.0f}));
    EXPECT_EQ((std::vector<float>{1 * 2 + 4 * 0.5f - 7, 2 * 2 + 6 * 0.5f - 9}),
              run(op.get(), {row({1, 2}), row({4, 6}), row({7, 9})}));
    // A factor that is not there is 0.
    set_coeffs(op.get(), row({2.0f}));
    EXPECT_EQ((std::vector<float>{2, 4}), run(op.get(), {row({1, 2}), row({4, 6})}));
    ParamDict pd;
    pd.set(0, 1);
    ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    EXPECT_EQ((std::vector<float>{5, 8}), run(op.get(), {row({1, 2}), row({4, 6})}));
}

TEST(EltwiseFloatFallback, FactorsMeanNothingToAProduct) {
    auto op = load(0);
    set_coeffs(op.get(), row({2.0f, 0.5f}));
    EXPECT_EQ((std::vector<float>{4, 12}), run(op.get(), {row({1, 2}), row({4, 6})}));
}

TEST(EltwiseFloatFallback, AnyLayoutIsAFlatRunOfNumbers) {
    for (const auto layout : {TensorShape::CHW, TensorShape::C4HW4, TensorShape::C8HW8}) {
        const auto a = random_floats(16, 3), b = random_floats(16, 4);
        const auto result =
            run(load(1).get(), {Mat::from_float_array(a.data(), 4, 2, 2, layout, nullptr),
                                Mat::from_float_array(b.data(), 4, 2, 2, layout, nullptr)});
        for (size_t i = 0; i < 16; ++i)
            EXPECT_EQ(a[i] + b[i], result[i]);
    }
}

TEST(EltwiseFloatFallback, ABottomOfAnotherShapeIsWalkedByItsOwnChannelsAndZerosBehind) {
    // The first has planes of 2, the second planes of 3, the third planes of 1.
    const Mat first = Mat::from_float_array(std::vector<float>{1, 2, 3, 4}.data(), 2, 1, 2,
                                            TensorShape::CHW, nullptr);
    std::vector<float> wide = {10, 20, 30, 40, 50, 60}, narrow = {100, 200};
    const Mat second(chw(2, 1, 3), wide.data(), nullptr);
    const Mat third(chw(2, 1, 1), narrow.data(), nullptr);
    EXPECT_EQ((std::vector<float>{11, 22, 43, 54}), run(load(1).get(), {first, second}));
    EXPECT_EQ((std::vector<float>{101, 202, 203, 4}), run(load(1).get(), {first, third}));
    EXPECT_EQ((std::vector<float>{100, 400, 600, 0}), run(load(0).get(), {first, third}));
    EXPECT_EQ((std::vector<float>{1, 2, 3, 4}),
              run(load(2).get(), {first, Mat(chw(1, 1, 0), nullptr)}));
}

TEST(EltwiseFloatFallback, FewerThanTwoBottomsAreRefused) {
    auto op = load(1);
    std::vector<Mat> tops(1), none;
    EXPECT_TRUE(op->check_forward({}));
    EXPECT_EQ(-100, op->forward({}, tops, get_default_option()));
    EXPECT_EQ(-100, op->forward({row({1})}, tops, get_default_option()));
    EXPECT_EQ(-100, op->forward({row({1}), row({2})}, none, get_default_option()));
    EXPECT_EQ(-100,
              op->forward({Mat(chw(0, 1, 1), nullptr), row({2})}, tops, get_default_option()));
}

TEST(EltwiseFloatFallback, AnyBottomThatIsNoFloatTensorRaisesTheAssertion) {
    auto op = load(1);
    for (const TensorShape& shape :
         {TensorShape(TensorShape::FLAT, 1, 1, 2, 4), TensorShape(TensorShape::CHW, 1, 1, 2, 2)}) {
        AssertRecorder assertions;
        std::vector<Mat> tops(1);
        EXPECT_EQ(-100,
                  op->forward({row({1, 2}), Mat(shape, nullptr)}, tops, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ("eltwise_float_fallback", assertions.last().source);
    }
    EXPECT_EQ(name, op->name());
}

TEST(EltwiseFloatFallback, AnAllocatorThatFailsGivesMinusHundred) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    std::vector<Mat> tops(1);
    EXPECT_EQ(-100, load(1)->forward({row({1, 2}), row({3, 4})}, tops, opt));
}

}  // namespace
