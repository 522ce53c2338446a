#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "support/guarded_floats.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

enum { maximum = 0, average = 1 };

std::unique_ptr<OperatorSISO> loaded(const std::string& name, int type, int stride_w,
                                     int stride_h) {
    auto op = make_operator(name.c_str());
    ParamDict pd;
    pd.set(0, type);
    // Nothing but the type and the strides is read.
    for (const int id : {1, 2, 5, 6, 7, 8, 9, 10})
        pd.set(id, 1);
    pd.set(3, stride_w);
    pd.set(4, stride_h);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    return op;
}

const char* const pool_2 = "Pooling_2x2s2_Float_SSE";
const char* const pool_4 = "Pooling_4x4_Average_Float_SSE";

// The window behind an output, flat in memory; zeros behind the block.
std::vector<double> window(const std::vector<float>& values, const TensorShape& shape, int size,
                           int q, int y, int x) {
    std::vector<double> result;
    for (int dy = 0; dy < size; ++dy) {
        for (int dx = 0; dx < size; ++dx) {
            const size_t i = (static_cast<size_t>(q) * shape.h + y * size + dy) * shape.w +
                             static_cast<size_t>(x) * size + dx;
            result.push_back(i < values.size() ? values[i] : 0.0);
        }
    }
    return result;
}

::testing::AssertionResult agrees(const std::string& name, int type, const TensorShape& shape,
                                  int stride_w, int stride_h, unsigned int seed) {
    const int size = name == pool_2 ? 2 : 4;
    const auto values = random_floats(static_cast<size_t>(shape.total()), seed, -5, 5);
    // A view: its memory ends with the last element.
    GuardedFloats bottom(shape, values, seed % 4);
    Mat top;
    if (loaded(name, type, stride_w, stride_h)->forward(bottom.view(), top, get_default_option()) !=
        0) {
        return ::testing::AssertionFailure() << "forward failed";
    }
    if (top.shape != chw(shape.c, shape.h / stride_h, shape.w / stride_w)) {
        return ::testing::AssertionFailure() << "shape of top";
    }
    if (!bottom.guards_intact() || bottom.values() != values || *top.refcount != 1) {
        return ::testing::AssertionFailure() << "memory beside the top";
    }
    const float* out = top.ptr<float>();
    for (int q = 0; q < shape.c; ++q) {
        for (int y = 0; y < top.shape.h; ++y) {
            for (int x = 0; x < top.shape.w; ++x, ++out) {
                const auto elements = window(values, shape, size, q, y, x);
                double exact = 0.0, magnitude = 0.0;
                if (type == maximum && name == pool_2) {
                    exact = *std::max_element(elements.begin(), elements.end());
                } else {
                    for (const double v : elements) {
                        exact += v / static_cast<double>(elements.size());
                        magnitude += std::abs(v) / static_cast<double>(elements.size());
                    }
                }
                const double bound =
                    sum_error_bound(static_cast<int64_t>(elements.size()), magnitude);
                if (!(std::abs(*out - exact) <= bound)) {
                    return ::testing::AssertionFailure() << "top[" << q << "][" << y << "][" << x
                                                         << "] is " << *out << ", not " << exact;
                }
            }
        }
    }
    return ::testing::AssertionSuccess();
}

TEST(Pooling2x2s2FloatSse, AgreesWithTheExactWindowsOverManySizes) {
    unsigned int seed = 1;
    for (const int type : {maximum, average}) {
        for (const int c : {1, 2, 3, 5}) {
            for (int h = 2; h <= 9; ++h) {
                for (int w = 2; w <= 21; ++w) {
                    SCOPED_TRACE(seed);
                    ASSERT_TRUE(agrees(pool_2, type, chw(c, h, w), 2, 2, seed++))
                        << c << " x " << h << " x " << w;
                }
            }
        }
    }
}

TEST(Pooling4x4AverageFloatSse, AgreesWithTheExactWindowsOverManySizes) {
    unsigned int seed = 1;
    for (const int c : {1, 2, 3, 5}) {
        for (int h = 4; h <= 13; ++h) {
            for (int w = 4; w <= 41; ++w) {
                SCOPED_TRACE(seed);
                ASSERT_TRUE(agrees(pool_4, average, chw(c, h, w), 4, 4, seed++))
                    << c << " x " << h << " x " << w;
            }
        }
    }
}

TEST(FixedWindowPooling, OtherStridesChangeTheTopsSizeAndNotTheWalk) {
    unsigned int seed = 1;
    for (const char* name : {pool_2, pool_4}) {
        for (const int stride_w : {1, 2, 3, 4, 5}) {
            for (const int stride_h : {1, 2, 3, 4, 5}) {
                for (const int size : {5, 6, 8}) {
                    SCOPED_TRACE(seed);
                    ASSERT_TRUE(
                        agrees(name, average, chw(3, size, size + 1), stride_w, stride_h, seed++))
                        << name << ", strides " << stride_w << " and " << stride_h;
                }
            }
        }
    }
}

TEST(Pooling2x2s2FloatSse, FiveByFiveGivesTwoByTwoAndIgnoresTheLastRowAndColumn) {
    std::vector<float> values(25, 100.0f);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 4; ++x)
            values[y * 5 + x] = static_cast<float>(y * 4 + x);
    }
    const Mat bottom = Mat::from_float_array(values.data(), 5, 5, 1, TensorShape::CHW, nullptr);
    Mat top;
    ASSERT_EQ(0, loaded(pool_2, maximum, 2, 2)->forward(bottom, top, get_default_option()));
    EXPECT_EQ(chw(1, 2, 2), top.shape);
    EXPECT_EQ((std::vector<float>{5.0f, 7.0f, 13.0f, 15.0f}), values_of(top));
    ASSERT_EQ(0, loaded(pool_2, average, 2, 2)->forward(bottom, top, get_default_option()));
    EXPECT_EQ((std::vector<float>{2.5f, 4.5f, 10.5f, 12.5f}), values_of(top));
}

TEST(Pooling2x2s2FloatSse, SixBySixHasAThirdRowAndColumn) {
    for (const int type : {maximum, average}) {
        ASSERT_TRUE(agrees(pool_2, type, chw(2, 6, 6), 2, 2, 5));
    }
}

TEST(Pooling2x2s2FloatSse, TheAverageAddsTopRightTopLeftBottomLeftBottomRight) {
    // 1 is lost behind the large number unless the two large ones meet first.
    const float large = std::ldexp(1.0f, 30);
    const auto run = [](const std::vector<float>& upper, const std::vector<float>& lower) {
        std::vector<float> values;
        for (int i = 0; i < 5; ++i)
            values.insert(values.end(), upper.begin(), upper.end());
        for (int i = 0; i < 5; ++i)
            values.insert(values.end(), lower.begin(), lower.end());
        const Mat bottom =
            Mat::from_float_array(values.data(), 10, 2, 1, TensorShape::CHW, nullptr);
        Mat top;
        EXPECT_EQ(0, loaded(pool_2, average, 2, 2)->forward(bottom, top, get_default_option()));
        return values_of(top);
    };
    EXPECT_EQ(std::vector<float>(5, 0.5f), run({large, -large}, {1.0f, 1.0f}));
    EXPECT_EQ(std::vector<float>(5, 0.25f), run({1.0f, large}, {-large, 1.0f}));
    EXPECT_EQ(std::vector<float>(5, 0.0f), run({1.0f, large}, {1.0f, -large}));
}

TEST(Pooling4x4AverageFloatSse, AddsTheRowsFirstAndThenTheColumnsInTheirOrder) {
    const float large = std::ldexp(1.0f, 30);
    std::vector<float> window(16, 0.0f);
    const auto run = [&window] {
        // Five windows side by side: four in vectors, one in the tail.
        std::vector<float> values;
        for (int y = 0; y < 4; ++y) {
            for (int i = 0; i < 5; ++i) {
                values.insert(values.end(), window.begin() + 4 * y, window.begin() + 4 * y + 4);
            }
        }
        const Mat bottom =
            Mat::from_float_array(values.data(), 20, 4, 1, TensorShape::CHW, nullptr);
        Mat top;
        EXPECT_EQ(0, loaded(pool_4, average, 4, 4)->forward(bottom, top, get_default_option()));
        return values_of(top);
    };
    // Down one column the large numbers cancel before the other columns join.
    window[0] = large;
    window[4] = -large;
    window[1] = 16.0f;
    EXPECT_EQ(std::vector<float>(5, 1.0f), run());
    // Across columns 0 and 2 they swallow what column 1 holds.
    window.assign(16, 0.0f);
    window[0] = large;
    window[2] = -large;
    window[1] = 16.0f;
    window[3] = 32.0f;
    EXPECT_EQ(std::vector<float>(5, 2.0f), run());
}

TEST(Pooling2x2s2FloatSse, TheMaximumPassesOverANanUnlessItStandsFirst) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int place = 0; place < 4; ++place) {
        std::vector<float> values(20);
        for (int i = 0; i < 20; ++i)
            values[i] = i / 10 * 2 + i % 2 == place ? nan : 1.0f;
        const Mat bottom =
            Mat::from_float_array(values.data(), 10, 2, 1, TensorShape::CHW, nullptr);
        Mat top;
        ASSERT_EQ(0, loaded(pool_2, maximum, 2, 2)->forward(bottom, top, get_default_option()));
        for (const float x : values_of(top)) {
            if (place == 0) {
                EXPECT_TRUE(std::isnan(x));
            } else {
                EXPECT_EQ(1.0f, x);
            }
        }
    }
}

TEST(Pooling2x2s2FloatSse, AnotherTypeLeavesTheTopUnwrittenAndReturnsZero) {
    Mat top(chw(1, 1, 1), nullptr);
    *top.ptr<float>() = 7.0f;
    for (const int type : {-1, 2}) {
        ASSERT_EQ(0, loaded(pool_2, type, 2, 2)
                         ->forward(random_tensor(1, 2, 2, 1), top, get_default_option()));
        EXPECT_EQ(7.0f, *top.ptr<float>());
    }
}

TEST(Pooling4x4AverageFloatSse, TheTypeIsNotLookedAt) {
    const Mat bottom = random_tensor(2, 8, 8, 3);
    std::vector<std::vector<float>> results;
    for (const int type : {0, 1, 7}) {
        Mat top;
        ASSERT_EQ(0, loaded(pool_4, type, 4, 4)->forward(bottom, top, get_default_option()));
        results.push_back(values_of(top));
    }
    EXPECT_EQ(results[0], results[1]);
    EXPECT_EQ(results[0], results[2]);
}

class EitherPooling : public ::testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Classes, EitherPooling, ::testing::Values(pool_2, pool_4),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(EitherPooling, TheTopNeverComesFromTheAllocatorsOfTheRun) {
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    Mat top;
    auto op = loaded(GetParam(), average, 4, 4);
    ASSERT_EQ(0, op->forward(random_tensor(2, 8, 8, 1), top, opt));
    EXPECT_EQ(0, blobs.calls + workspace.calls);
    EXPECT_EQ(nullptr, top.allocator);
    // A top of the right shape is used again.
    const void* block = top.data;
    ASSERT_EQ(0, op->forward(random_tensor(2, 9, 11, 2), top, opt));
    EXPECT_EQ(block, top.data);
}

TEST_P(EitherPooling, StridesBelowOneGiveMinus100) {
    Mat top;
    for (const auto& strides : {std::pair<int, int>{0, 2}, {2, 0}, {0, 0}, {-2, 2}, {-2, -2}}) {
        EXPECT_EQ(-100, loaded(GetParam(), average, strides.first, strides.second)
                            ->forward(random_tensor(1, 8, 8, 1), top, get_default_option()));
    }
}

TEST_P(EitherPooling, TheStridesDefaultToNothingAndToEachOther) {
    Mat top;
    auto op = make_operator(GetParam());
    const ModelBinFromTarnoWeightBias none(nullptr, nullptr);
    ASSERT_EQ(0, op->load(ParamDict(), none, {nullptr, 0, 0}));
    EXPECT_EQ(-100, op->forward(random_tensor(1, 8, 8, 1), top, get_default_option()));
    ParamDict pd;
    pd.set(3, 4);
    ASSERT_EQ(0, op->load(pd, none, {nullptr, 0, 0}));
    ASSERT_EQ(0, op->forward(random_tensor(1, 8, 12, 1), top, get_default_option()));
    EXPECT_EQ(chw(1, 2, 3), top.shape);
}

TEST_P(EitherPooling, ABottomSmallerThanAWindowGivesMinus100) {
    Mat top;
    auto op = loaded(GetParam(), average, 4, 4);
    EXPECT_EQ(-100, op->forward(random_tensor(1, 3, 8, 1), top, get_default_option()));
    EXPECT_EQ(-100, op->forward(random_tensor(1, 8, 3, 1), top, get_default_option()));
    EXPECT_EQ(-100, op->forward(Mat(chw(1, 0, 8), nullptr), top, get_default_option()));
}

TEST_P(EitherPooling, AnotherLayoutOrElementSizeRaisesTheAssertion) {
    AssertRecorder assertions;
    Mat top;
    auto op = loaded(GetParam(), average, 4, 4);
    EXPECT_EQ(-100, op->forward(Mat(TensorShape(TensorShape::C4HW4, 1, 8, 32, 4), nullptr), top,
                                get_default_option()));
    EXPECT_EQ(-100, op->forward(Mat(TensorShape(TensorShape::CHW, 1, 8, 32, 1), nullptr), top,
                                get_default_option()));
    ASSERT_EQ(2u, assertions.count("false && \"Invalid forward pre-conditions\""));
    EXPECT_EQ(GetParam() == pool_2 ? "pooling_2x2s2_float_sse" : "pooling_4x4_average_float_sse",
              assertions.last().source);
}

TEST_P(EitherPooling, CarriesItsName) {
    EXPECT_EQ(GetParam(), loaded(GetParam(), average, 4, 4)->name());
}

}  // namespace
