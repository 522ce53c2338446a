#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

struct Class {
    const char* name;
    const char* unit;
};

class PixelShuffle : public ::testing::TestWithParam<Class> {
protected:
    std::unique_ptr<OperatorSISO> loaded(float scale) {
        auto op = make_operator(GetParam().name);
        ParamDict pd;
        pd.set(0, scale);
        EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
        return op;
    }
    int run(float scale, const Mat& bottom, Mat& top) {
        return loaded(scale)->forward(bottom, top, get_default_option());
    }
};

INSTANTIATE_TEST_SUITE_P(
    Classes, PixelShuffle,
    ::testing::Values(Class{"PixelShuffle_Float_Fallback", "pixelshuffle_float_fallback"},
                      Class{"PixelShuffle_Float_SSE", "pixelshuffle_float_sse"}),
    [](const auto& info) { return std::string(info.param.name); });

float at(const Mat& mat, int q, int y, int x) {
    return mat.ptr<float>()[(q * mat.shape.h + y) * mat.shape.w + x];
}

TEST_P(PixelShuffle, DepthGoesToSpace) {
    for (const int r : {1, 2, 3, 4}) {
        for (const int channels : {1, 2, 3}) {
            for (const int h : {1, 3, 4}) {
                for (const int w : {1, 2, 5, 8}) {
                    const Mat bottom = random_tensor(channels * r * r, h, w, 11);
                    Mat top;
                    ASSERT_EQ(0, run(static_cast<float>(r), bottom, top));
                    ASSERT_EQ(chw(channels, h * r, w * r), top.shape);
                    for (int q = 0; q < channels * r * r; ++q) {
                        const int k = q % (r * r);
                        for (int y = 0; y < h; ++y) {
                            for (int x = 0; x < w; ++x) {
                                ASSERT_EQ(at(bottom, q, y, x),
                                          at(top, q / (r * r), y * r + k / r, x * r + k % r));
                            }
                        }
                    }
                }
            }
        }
    }
}

TEST_P(PixelShuffle, SpaceGoesToDepth) {
    for (const int r : {1, 2, 3, 4}) {
        for (const int channels : {1, 2, 3}) {
            for (const int h : {r, 3 * r}) {
                for (const int w : {r, 2 * r, 5 * r}) {
                    const Mat bottom = random_tensor(channels, h, w, 12);
                    Mat top;
                    // Not quite 1 / r: what is cut off must not be a whole one.
                    const float scale = r == 1 ? 0.75f : 1.0f / (static_cast<float>(r) + 0.25f);
                    ASSERT_EQ(0, run(scale, bottom, top));
                    ASSERT_EQ(chw(channels * r * r, h / r, w / r), top.shape);
                    for (int q = 0; q < channels; ++q) {
                        for (int y = 0; y < h; ++y) {
                            for (int x = 0; x < w; ++x) {
                                ASSERT_EQ(at(bottom, q, y, x),
                                          at(top, (q * r + y % r) * r + x % r, y / r, x / r));
                            }
                        }
                    }
                }
            }
        }
    }
}

TEST_P(PixelShuffle, AHalfOfFourByFourMakesFourChannelsOfTwoByTwo) {
    const Mat bottom = random_tensor(1, 4, 4, 13);
    Mat top;
    ASSERT_EQ(0, run(0.5f, bottom, top));
    ASSERT_EQ(chw(4, 2, 2), top.shape);
    EXPECT_EQ((std::vector<float>{at(bottom, 0, 1, 1), at(bottom, 0, 1, 3), at(bottom, 0, 3, 1),
                                  at(bottom, 0, 3, 3)}),
              (std::vector<float>{at(top, 3, 0, 0), at(top, 3, 0, 1), at(top, 3, 1, 0),
                                  at(top, 3, 1, 1)}));
}

TEST_P(PixelShuffle, TheFactorIsTheScaleWithoutItsFraction) {
    const Mat bottom = random_tensor(4, 2, 2, 14);
    Mat top;
    ASSERT_EQ(0, run(2.9f, bottom, top));
    EXPECT_EQ(chw(1, 4, 4), top.shape);
}

TEST_P(PixelShuffle, SizesThatDoNotDivideGiveMinus100) {
    Mat top;
    EXPECT_EQ(-100, run(2.0f, random_tensor(6, 2, 2, 1), top));
    EXPECT_EQ(-100, run(2.0f, random_tensor(1, 2, 2, 1), top));
    EXPECT_EQ(-100, run(0.5f, random_tensor(1, 3, 4, 1), top));
    EXPECT_EQ(-100, run(0.5f, random_tensor(1, 4, 3, 1), top));
    EXPECT_TRUE(top.empty());
}

TEST_P(PixelShuffle, AScaleWithoutAFactorGivesMinus100) {
    const float infinity = std::numeric_limits<float>::infinity();
    for (const float scale : {0.0f, -0.0f, -0.5f, -2.0f, 1e10f, 3e9f, 1e-12f, infinity, -infinity,
                              std::numeric_limits<float>::quiet_NaN()}) {
        Mat top;
        EXPECT_EQ(-100, run(scale, random_tensor(4, 4, 4, 1), top)) << scale;
    }
}

TEST_P(PixelShuffle, TheTopComesFromTheBlobAllocator) {
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    {
        Mat top;
        ASSERT_EQ(0, loaded(2.0f)->forward(random_tensor(4, 3, 3, 1), top, opt));
        EXPECT_EQ(&blobs, top.allocator);
        EXPECT_EQ(1, *top.refcount);
        for (const float x : values_of(top))
            EXPECT_FALSE(std::isnan(x));
    }
    EXPECT_EQ(0, blobs.alive);
    EXPECT_EQ(0, workspace.calls);
    blobs.fail = true;
    Mat top;
    EXPECT_EQ(-100, loaded(2.0f)->forward(random_tensor(4, 3, 3, 1), top, opt));
}

TEST_P(PixelShuffle, AnotherLayoutOrElementSizeRaisesTheAssertion) {
    AssertRecorder assertions;
    Mat top;
    EXPECT_EQ(-100, run(2.0f, Mat(TensorShape(TensorShape::C4HW4, 1, 2, 8, 4), nullptr), top));
    EXPECT_EQ(-100, run(2.0f, Mat(TensorShape(TensorShape::CHW, 4, 2, 8, 2), nullptr), top));
    ASSERT_EQ(2u, assertions.count("false && \"Invalid forward pre-conditions\""));
    EXPECT_EQ(GetParam().unit, assertions.last().source);
}

TEST_P(PixelShuffle, AnEmptyBottomGivesMinus100) {
    Mat top;
    EXPECT_EQ(-100, run(2.0f, Mat(chw(4, 0, 2), nullptr), top));
}

TEST_P(PixelShuffle, CarriesItsName) {
    EXPECT_EQ(GetParam().name, loaded(2.0f)->name());
}

}  // namespace
