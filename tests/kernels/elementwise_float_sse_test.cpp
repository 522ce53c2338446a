#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "support/guarded_floats.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

enum { product = 0, sum = 1, maximum = 2 };

std::unique_ptr<OperatorMIMO> loaded(int op_type) {
    auto op = make_operator<OperatorMIMO>("Elementwise_Float_SSE");
    ParamDict pd;
    pd.set(0, op_type);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    return op;
}

Mat row(const std::vector<float>& values) {
    return Mat::from_float_array(values.data(), static_cast<int>(values.size()), 1, 1,
                                 TensorShape::CHW, nullptr);
}

std::vector<float> run(int op_type, const std::vector<Mat>& bottoms) {
    std::vector<Mat> tops(1);
    EXPECT_EQ(0, loaded(op_type)->forward(bottoms, tops, get_default_option()));
    return values_of(tops[0]);
}

// A float operation is the same operation in double and one rounding.
float reference(int op_type, float a, float b) {
    if (op_type == maximum) return b > a ? b : a;
    const double exact = op_type == sum ? static_cast<double>(a) + b : static_cast<double>(a) * b;
    return static_cast<float>(exact);
}

TEST(ElementwiseFloatSse, CombinesTwoToFourBottomsOneAfterTheOther) {
    for (const int op_type : {product, sum, maximum}) {
        for (size_t bottom_count = 2; bottom_count <= 4; ++bottom_count) {
            for (int count = 1; count <= 40; ++count) {
                SCOPED_TRACE(count);
                std::vector<Mat> bottoms;
                std::vector<float> expected;
                for (size_t k = 0; k < bottom_count; ++k) {
                    const auto values =
                        random_floats(static_cast<size_t>(count), 10 * count + k, -3, 3);
                    bottoms.push_back(row(values));
                    if (k == 0) expected = values;
                    for (size_t i = 0; k > 0 && i < values.size(); ++i) {
                        expected[i] = reference(op_type, expected[i], values[i]);
                    }
                }
                ASSERT_EQ(expected, run(op_type, bottoms));
            }
        }
    }
}

TEST(ElementwiseFloatSse, ThreeBottomsAreSummedInTheirOrder) {
    // Added from the right, the small ones would meet first and count.
    const float small = std::ldexp(1.0f, -24);
    EXPECT_EQ(std::vector<float>(5, 1.0f),
              run(sum, {row(std::vector<float>(5, 1.0f)), row(std::vector<float>(5, small)),
                        row(std::vector<float>(5, small))}));
}

TEST(ElementwiseFloatSse, TheMaximumKeepsTheFirstWhereEitherIsNan) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const size_t count : {1u, 4u, 8u, 9u}) {
        for (const float x : run(maximum, {row(std::vector<float>(count, 2.0f)),
                                           row(std::vector<float>(count, nan))})) {
            EXPECT_EQ(2.0f, x);
        }
        for (const float x : run(maximum, {row(std::vector<float>(count, nan)),
                                           row(std::vector<float>(count, 2.0f))})) {
            EXPECT_TRUE(std::isnan(x));
        }
    }
}

TEST(ElementwiseFloatSse, TheMaximumKeepsTheFirstOfTwoZeros) {
    const auto kept = run(maximum, {row({-0.0f, 0.0f}), row({0.0f, -0.0f})});
    EXPECT_TRUE(std::signbit(kept[0]));
    EXPECT_FALSE(std::signbit(kept[1]));
}

TEST(ElementwiseFloatSse, WorksOnTheFlatDataOfEveryLayout) {
    const auto a = random_floats(2 * 3 * 8, 1), b = random_floats(2 * 3 * 8, 2);
    for (const auto layout : {TensorShape::CHW, TensorShape::C4HW4, TensorShape::C8HW8}) {
        std::vector<Mat> tops(1);
        const std::vector<Mat> bottoms = {
            Mat::from_float_array(a.data(), 8, 3, 2, layout, nullptr),
            Mat::from_float_array(b.data(), 8, 3, 2, layout, nullptr)};
        ASSERT_EQ(0, loaded(sum)->forward(bottoms, tops, get_default_option()));
        EXPECT_EQ(bottoms[0].shape, tops[0].shape);
        const auto result = values_of(tops[0]);
        for (size_t i = 0; i < a.size(); ++i)
            EXPECT_EQ(reference(sum, a[i], b[i]), result[i]);
    }
}

TEST(ElementwiseFloatSse, WhatAShorterBottomLacksCountsAsZero) {
    const auto a = random_floats(29, 3);
    for (const int op_type : {product, sum, maximum}) {
        for (const int count : {1, 3, 4, 7, 8, 13, 28}) {
            const auto b = random_floats(static_cast<size_t>(count), 4);
            GuardedFloats shorter(chw(1, 1, count), b, 1);
            const auto result = run(op_type, {row(a), shorter.view()});
            for (size_t i = 0; i < a.size(); ++i) {
                ASSERT_EQ(reference(op_type, a[i], i < b.size() ? b[i] : 0.0f), result[i]);
            }
        }
        // A tensor that never got a block.
        const auto result = run(op_type, {row(a), Mat(chw(1, 1, 29), nullptr, nullptr)});
        for (size_t i = 0; i < a.size(); ++i) {
            ASSERT_EQ(reference(op_type, a[i], 0.0f), result[i]);
        }
    }
}

TEST(ElementwiseFloatSse, WhatALongerBottomHasMoreIsNotLookedAt) {
    const auto a = random_floats(11, 5), b = random_floats(30, 6);
    const auto result = run(sum, {row(a), row(b)});
    ASSERT_EQ(a.size(), result.size());
    for (size_t i = 0; i < a.size(); ++i)
        EXPECT_EQ(reference(sum, a[i], b[i]), result[i]);
}

TEST(ElementwiseFloatSse, TheTopComesFromTheBlobAllocatorAndHoldsEveryElement) {
    for (int count = 1; count <= 20; ++count) {
        PoisoningAllocator blobs, workspace;
        Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        const auto values = random_floats(static_cast<size_t>(count), 7);
        {
            std::vector<Mat> tops(1);
            ASSERT_EQ(0, loaded(sum)->forward({row(values), row(values)}, tops, opt));
            EXPECT_EQ(&blobs, tops[0].allocator);
            // The counter stands right behind the elements.
            EXPECT_EQ(1, *tops[0].refcount);
            for (const float x : values_of(tops[0]))
                EXPECT_FALSE(std::isnan(x));
        }
        EXPECT_EQ(1, blobs.calls);
        EXPECT_EQ(0, workspace.calls);
        EXPECT_EQ(0, blobs.alive);
    }
}

TEST(ElementwiseFloatSse, NoMemoryGivesMinus100) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    std::vector<Mat> tops(1);
    EXPECT_EQ(-100, loaded(sum)->forward({row({1.0f}), row({2.0f})}, tops, opt));
    EXPECT_TRUE(tops[0].empty());
}

TEST(ElementwiseFloatSse, AnotherTypeLeavesTheTopUnwrittenAndReturnsZero) {
    for (const int op_type : {-1, 3, 100}) {
        PoisoningAllocator blobs;
        Option opt;
        opt.blob_allocator = &blobs;
        std::vector<Mat> tops(1);
        ASSERT_EQ(0, loaded(op_type)->forward({row({1.0f, 2.0f}), row({3.0f, 4.0f})}, tops, opt));
        EXPECT_EQ(chw(1, 1, 2), tops[0].shape);
        for (const float x : values_of(tops[0]))
            EXPECT_TRUE(std::isnan(x));
    }
}

TEST(ElementwiseFloatSse, AnEmptyListPassesTheCheckAndHasNoTop) {
    AssertRecorder assertions;
    auto op = loaded(sum);
    EXPECT_TRUE(op->check_forward({}));
    std::vector<Mat> tops(1);
    EXPECT_EQ(-100, op->forward({}, tops, get_default_option()));
    EXPECT_EQ(0u, assertions.count());
}

TEST(ElementwiseFloatSse, ASingleBottomIsRefused) {
    std::vector<Mat> tops(1);
    EXPECT_EQ(-100, loaded(sum)->forward({row({1.0f})}, tops, get_default_option()));
    EXPECT_TRUE(tops[0].empty());
}

TEST(ElementwiseFloatSse, AnyBottomOfAnotherElementSizeRaisesTheAssertion) {
    AssertRecorder assertions;
    const Mat halves(TensorShape(TensorShape::CHW, 1, 1, 1, 2), nullptr);
    std::vector<Mat> tops(1);
    EXPECT_EQ(-100,
              loaded(sum)->forward({row({1.0f}), row({1.0f}), halves}, tops, get_default_option()));
    ASSERT_EQ(1u, assertions.count("false && \"Invalid forward pre-conditions\""));
    EXPECT_EQ("elementwise_float_sse", assertions.last().source);
    EXPECT_TRUE(tops[0].empty());
}

TEST(ElementwiseFloatSse, CarriesItsName) {
    EXPECT_EQ("Elementwise_Float_SSE", loaded(sum)->name());
}

}  // namespace
