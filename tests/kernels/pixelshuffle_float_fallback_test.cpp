#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr const char* name = "PixelShuffle_Float_Fallback";

std::unique_ptr<OperatorSISO> load(float scale) {
    ParamDict pd;
    pd.set(0, scale);
    auto op = make_operator(name);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    return op;
}

std::vector<float> run(float scale, const TensorShape& bottom, std::vector<float> input,
                       const TensorShape& expected) {
    PoisoningAllocator blobs;
    Option opt;
    opt.blob_allocator = &blobs;
    std::vector<float> values;
    {
        Mat top;
        EXPECT_EQ(0, load(scale)->forward(Mat(bottom, input.data(), nullptr), top, opt));
        EXPECT_EQ(expected, top.shape);
        EXPECT_EQ(&blobs, top.allocator);
        values = values_of(top);
    }
    EXPECT_EQ(0, blobs.alive);
    return values;
}

TEST(PixelShuffleFloatFallback, DepthBecomesSpaceAndSpaceBecomesDepthAgain) {
    for (const int r : {1, 2, 3, 4})
        for (const int c : {1, 3, 5})
            for (const int w : {1, 2, 5}) {
                const int h = 3;
                const unsigned int seed = 100 + static_cast<unsigned int>(r);
                SCOPED_TRACE(testing::Message() << "seed " << seed << ", r " << r << ", " << c
                                                << "x" << h << "x" << w);
                const auto input = random_floats(static_cast<size_t>(c) * r * r * h * w, seed);
                const TensorShape deep = chw(c * r * r, h, w), wide = chw(c, h * r, w * r);
                const auto spread = run(static_cast<float>(r) + 0.5f, deep, input, wide);
                for (int q = 0; q < c * r * r; ++q)
                    for (int y = 0; y < h; ++y)
                        for (int x = 0; x < w; ++x) {
                            const int oc = q / (r * r), k = q % (r * r);
                            const int oy = y * r + k / r, ox = x * r + k % r;
                            ASSERT_EQ(input[static_cast<size_t>((q * h + y) * w + x)],
                                      spread[static_cast<size_t>((oc * h * r + oy) * w * r + ox)]);
                        }
                if (r > 1) {
                    EXPECT_EQ(input, run(1.0f / static_cast<float>(r), wide, spread, deep));
                }
            }
}

TEST(PixelShuffleFloatFallback, HalvingGathersEverySecondElementIntoAChannel) {
    std::vector<float> input(16);
    for (size_t i = 0; i < 16; ++i)
        input[i] = static_cast<float>(i);
    const auto result = run(0.5f, chw(1, 4, 4), input, chw(4, 2, 2));
    EXPECT_EQ((std::vector<float>{5, 7, 13, 15}),
              std::vector<float>(result.begin() + 12, result.end()));
}

TEST(PixelShuffleFloatFallback, SizesThatDoNotDivideAreRefused) {
    Mat top;
    const Option& opt = get_default_option();
    EXPECT_EQ(-100, load(2.0f)->forward(random_tensor(6, 2, 2, 1), top, opt));
    EXPECT_EQ(-100, load(3.0f)->forward(random_tensor(4, 2, 2, 1), top, opt));
    EXPECT_EQ(-100, load(0.5f)->forward(random_tensor(1, 3, 4, 1), top, opt));
    EXPECT_EQ(-100, load(0.5f)->forward(random_tensor(1, 4, 3, 1), top, opt));
    EXPECT_EQ(-100, load(2.0f)->forward(Mat(chw(4, 0, 2), nullptr), top, opt));
}

TEST(PixelShuffleFloatFallback, ScalesThatAreNoFactorAreRefusedWithoutAFault) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (const float scale : {0.0f, -0.0f, -2.0f, -0.5f, nan, inf, -inf, 3e9f, 1e-30f, 1e38f}) {
        SCOPED_TRACE(scale);
        Mat top;
        EXPECT_EQ(-100, load(scale)->forward(random_tensor(4, 4, 4, 1), top, get_default_option()));
    }
}

TEST(PixelShuffleFloatFallback, ATensorOfAnotherLayoutRaisesTheAssertion) {
    auto op = load(2.0f);
    for (const TensorShape& shape :
         {TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), TensorShape(TensorShape::CHW, 4, 1, 1, 2)}) {
        AssertRecorder assertions;
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ("pixelshuffle_float_fallback", assertions.last().source);
    }
    EXPECT_EQ(name, op->name());
}

TEST(PixelShuffleFloatFallback, AnAllocatorThatFailsGivesMinusHundred) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    Mat top;
    EXPECT_EQ(-100, load(2.0f)->forward(random_tensor(4, 2, 2, 1), top, opt));
}

}  // namespace
