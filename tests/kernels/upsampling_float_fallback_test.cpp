#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr const char* name = "Upsampling_Float_Fallback";

std::unique_ptr<OperatorSISO> load(float scale, int mode, int align) {
    ParamDict pd;
    pd.set(0, scale);
    pd.set(1, mode);
    pd.set(2, align);
    auto op = make_operator(name);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    return op;
}

// Runs on views and NaN-filled blocks, and checks the shape.
std::vector<float> run(OperatorSISO* op, int scale, int c, int h, int w, std::vector<float> input) {
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    std::vector<float> values;
    {
        Mat top;
        EXPECT_EQ(0, op->forward(Mat(chw(c, h, w), input.data(), nullptr), top, opt));
        EXPECT_EQ(chw(c, h * scale, w * scale), top.shape);
        EXPECT_EQ(&blobs, top.allocator);
        values = values_of(top);
    }
    EXPECT_EQ(0, blobs.alive);
    EXPECT_EQ(0, workspace.alive);
    return values;
}

// Position of output `out` of a doubled row between its inputs: the input before it and the part of
// the way to the next, as the chain of float operations that defines it.
struct DoubledPlace {
    int before = 0;
    float t = 0.0f;
    DoubledPlace(int out, int count, bool align) {
        float step = 0.5f, position = 0.25f;
        if (align) {
            step = static_cast<float>((count - 1) / (2.0 * count - 1));
            position = step;
        }
        if (out == 0) return;
        if (out == 2 * count - 1) {
            before = count - 1;
            return;
        }
        before = (out - 1) / 2;
        for (int i = 0; i < before; ++i)
            position += 2 * step;
        t = position - static_cast<float>(static_cast<int>(position));
        if (out % 2 == 0) t = t + step;
    }
};

// The same in double and without a running sum.
double exact_position(int out, int count, bool align) {
    if (align) return out * (count - 1.0) / (2.0 * count - 1.0);
    return std::min(std::max((out + 0.5) / 2.0 - 0.5, 0.0), count - 1.0);
}

TEST(UpsamplingFloatFallback, NearestFillsBlocks) {
    for (const int scale : {2, 4})
        for (const int c : {1, 3, 4, 5, 8})
            for (const int w : {1, 2, 7}) {
                const unsigned int seed = 80 + static_cast<unsigned int>(c);
                SCOPED_TRACE(seed);
                const int h = 3;
                const auto input = random_floats(static_cast<size_t>(c) * h * w, seed);
                const auto result =
                    run(load(static_cast<float>(scale), 0, 0).get(), scale, c, h, w, input);
                for (int q = 0; q < c; ++q)
                    for (int y = 0; y < h * scale; ++y)
                        for (int x = 0; x < w * scale; ++x)
                            ASSERT_EQ(
                                input[static_cast<size_t>((q * h + y / scale) * w + x / scale)],
                                result[static_cast<size_t>((q * h * scale + y) * w * scale + x)]);
            }
}

TEST(UpsamplingFloatFallback, BilinearDoublingFollowsItsFormula) {
    unsigned int seed = 90;
    const double u = std::ldexp(1.0, -24);
    for (const bool align : {false, true})
        for (const int c : {1, 3, 4, 5, 8})
            for (const int h : {1, 2, 5})
                for (const int w : {1, 2, 3, 18}) {
                    SCOPED_TRACE(testing::Message() << "seed " << seed << ", align " << align
                                                    << ", " << c << "x" << h << "x" << w);
                    const auto input = random_floats(static_cast<size_t>(c) * h * w, seed++);
                    const auto result = run(load(2.0f, 1, align).get(), 2, c, h, w, input);
                    for (int q = 0; q < c; ++q)
                        for (int y = 0; y < 2 * h; ++y)
                            for (int x = 0; x < 2 * w; ++x) {
                                const DoubledPlace py(y, h, align), px(x, w, align);
                                const auto at = [&](int j, int i) {
                                    return input[static_cast<size_t>((q * h + j) * w + i)];
                                };
                                const int j1 = std::min(py.before + 1, h - 1);
                                const int i1 = std::min(px.before + 1, w - 1);
                                // An edge is one line of the bottom, taken as it is.
                                const bool inside_y = y > 0 && y < 2 * h - 1;
                                const bool inside_x = x > 0 && x < 2 * w - 1;
                                const auto mix_y = [&](int i) {
                                    if (!inside_y) return at(py.before, i);
                                    const float upper = (1.0f - py.t) * at(py.before, i);
                                    const float lower = py.t * at(j1, i);
                                    return upper + lower;
                                };
                                float chain = mix_y(px.before);
                                if (inside_x) {
                                    const float left = (1.0f - px.t) * chain;
                                    const float right = px.t * mix_y(i1);
                                    chain = left + right;
                                }
                                const float value =
                                    result[static_cast<size_t>((q * 2 * h + y) * 2 * w + x)];
                                ASSERT_EQ(chain, value) << q << " " << y << " " << x;

                                const double fy = exact_position(y, h, align);
                                const double fx = exact_position(x, w, align);
                                const int ej = static_cast<int>(fy), ei = static_cast<int>(fx);
                                const int ej1 = std::min(ej + 1, h - 1);
                                const int ei1 = std::min(ei + 1, w - 1);
                                const double ty = fy - ej, tx = fx - ei;
                                const double exact =
                                    (1 - ty) * ((1 - tx) * at(ej, ei) + tx * at(ej, ei1)) +
                                    ty * ((1 - tx) * at(ej1, ei) + tx * at(ej1, ei1));
                                // A position is a sum of at most n steps, each rounded at a value
                                // below n, from a step that is off by u: n * n * u + 2 * n * u. An
                                // error of t counts twice, for values within -1 .. 1. Eight
                                // roundings of values below 1 for the rest.
                                const double ny = h + 1, nx = w + 1;
                                const double bound =
                                    2 * (ny * ny + 2 * ny + nx * nx + 2 * nx) * u + 8 * u;
                                ASSERT_NEAR(exact, value, bound) << q << " " << y << " " << x;
                            }
                }
}

TEST(UpsamplingFloatFallback, ThreeAndFourChannelsGiveTheSameNumbersPerChannel) {
    const auto input = random_floats(4 * 5 * 7, 91);
    for (const bool align : {false, true}) {
        const auto four = run(load(2.0f, 1, align).get(), 2, 4, 5, 7, input);
        const std::vector<float> first(input.begin(), input.begin() + 3 * 35);
        const auto three = run(load(2.0f, 1, align).get(), 2, 3, 5, 7, first);
        EXPECT_EQ(std::vector<float>(four.begin(), four.begin() + 3 * 140), three);
    }
}

TEST(UpsamplingFloatFallback, WithoutAlignedCornersFourAndEightRepeatTheFirstElement) {
    for (const int scale : {4, 8}) {
        const auto input = random_floats(2 * 3 * 5, 92);
        const auto result = run(load(static_cast<float>(scale), 1, 0).get(), scale, 2, 3, 5, input);
        const size_t plane = result.size() / 2;
        for (size_t i = 0; i < result.size(); ++i)
            EXPECT_EQ(input[i / plane * 15], result[i]);
    }
}

TEST(UpsamplingFloatFallback, WithAlignedCornersFourAndEightFollowTheirFormula) {
    unsigned int seed = 93;
    const double u = std::ldexp(1.0, -24);
    for (const int scale : {4, 8})
        for (const int c : {1, 3, 4})
            for (const int h : {1, 3})
                for (const int w : {1, 2, 9}) {
                    SCOPED_TRACE(testing::Message() << "seed " << seed << ", " << c << "x" << h
                                                    << "x" << w << " by " << scale);
                    const auto input = random_floats(static_cast<size_t>(c) * h * w, seed++);
                    const auto result =
                        run(load(static_cast<float>(scale), 1, 1).get(), scale, c, h, w, input);
                    const int oh = h * scale, ow = w * scale;
                    const float sx = static_cast<float>(w - 1) / static_cast<float>(ow - 1);
                    const float sy = static_cast<float>(h - 1) / static_cast<float>(oh - 1);
                    for (int q = 0; q < c; ++q)
                        for (int y = 0; y < oh; ++y)
                            for (int x = 0; x < ow; ++x) {
                                const auto at = [&](int j, int i) {
                                    return input[static_cast<size_t>((q * h + j) * w + i)];
                                };
                                const float fy = static_cast<float>(y) * sy;
                                const float fx = static_cast<float>(x) * sx;
                                const int iy = static_cast<int>(fy), ix = static_cast<int>(fx);
                                const float ty = fy - static_cast<float>(iy);
                                const float tx = fx - static_cast<float>(ix);
                                const int iy1 = iy < h - 1 ? iy + 1 : iy;
                                const int ix1 = ix < w - 1 ? ix + 1 : ix;
                                float chain = at(iy, ix1) * tx * (1 - ty);
                                chain += at(iy, ix) * (1 - tx) * (1 - ty);
                                chain += at(iy1, ix) * (1 - tx) * ty;
                                chain += at(iy1, ix1) * tx * ty;
                                const float value =
                                    result[static_cast<size_t>((q * oh + y) * ow + x)];
                                ASSERT_EQ(chain, value) << q << " " << y << " " << x;

                                // Linear between the inputs, so continuous: a position off by
                                // 2 * u * n moves the value by at most twice that, in each
                                // direction. Seven roundings behind it.
                                const double ey = h == 1 ? 0 : y * (h - 1.0) / (oh - 1.0);
                                const double ex = w == 1 ? 0 : x * (w - 1.0) / (ow - 1.0);
                                const int ej = static_cast<int>(ey), ei = static_cast<int>(ex);
                                const int ej1 = std::min(ej + 1, h - 1);
                                const int ei1 = std::min(ei + 1, w - 1);
                                const double exact =
                                    (1 - (ey - ej)) *
                                        ((1 - (ex - ei)) * at(ej, ei) + (ex - ei) * at(ej, ei1)) +
                                    (ey - ej) *
                                        ((1 - (ex - ei)) * at(ej1, ei) + (ex - ei) * at(ej1, ei1));
                                ASSERT_NEAR(exact, value, (4 * (h + w) + 7) * u);
                            }
                }
}

TEST(UpsamplingFloatFallback, WhatIsNotThereRaisesAnAssertionAndReturnsZeroWithAnUnfilledTop) {
    const struct {
        float scale;
        int mode;
    } cases[] = {{8.0f, 0}, {2.0f, 2}, {4.0f, -1}};
    for (const auto& each : cases) {
        AssertRecorder assertions;
        const auto op = load(each.scale, each.mode, 0);
        const auto result =
            run(op.get(), static_cast<int>(each.scale), 1, 2, 2, std::vector<float>(4, 1.0f));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Not implemeted\"", assertions.last().condition);
        EXPECT_EQ("upsampling_float_fallback", assertions.last().source);
        for (const float v : result)
            EXPECT_TRUE(std::isnan(v));
    }
}

TEST(UpsamplingFloatFallback, OtherScalesAndLayoutsRaiseTheAssertion) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const float scale : {0.0f, 1.0f, 3.0f, 2.5f, 16.0f, -2.0f, nan, 1e30f}) {
        AssertRecorder assertions;
        Mat top;
        const auto op = load(scale, 1, 0);
        EXPECT_FALSE(op->check_forward(chw(1, 2, 2)));
        EXPECT_EQ(-100, op->forward(random_tensor(1, 2, 2, 1), top, get_default_option()));
        EXPECT_EQ(1u, assertions.count("false && \"Invalid forward pre-conditions\""));
    }
    AssertRecorder assertions;
    Mat top;
    const Mat packed(TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), nullptr);
    const Mat shorts(TensorShape(TensorShape::CHW, 1, 1, 4, 2), nullptr);
    EXPECT_EQ(-100, load(2, 1, 0)->forward(packed, top, get_default_option()));
    EXPECT_EQ(-100, load(2, 1, 0)->forward(shorts, top, get_default_option()));
    ASSERT_EQ(2u, assertions.count("false && \"Invalid forward pre-conditions\""));
    EXPECT_EQ("upsampling_float_fallback", assertions.last().source);
    EXPECT_EQ(name, load(2, 1, 0)->name());
}

TEST(UpsamplingFloatFallback, TheModeIsBilinearWithoutAlignedCornersUnlessTold) {
    ParamDict pd;
    pd.set(0, 2.0f);
    auto op = make_operator(name);
    ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    const auto input = random_floats(12, 94);
    EXPECT_EQ(run(load(2, 1, 0).get(), 2, 1, 3, 4, input), run(op.get(), 2, 1, 3, 4, input));
}

TEST(UpsamplingFloatFallback, SizesThatFloatCannotCountAreRefused) {
    // A view whose rows nobody reads.
    float one = 1.0f;
    Mat top;
    const Mat wide(chw(1, 1, (1 << 23) + 1), &one, nullptr);
    const Mat high(chw(1, 1 << 30, 1), &one, nullptr);
    EXPECT_EQ(-100, load(2, 1, 0)->forward(wide, top, get_default_option()));
    EXPECT_EQ(-100, load(8, 1, 0)->forward(high, top, get_default_option()));
    EXPECT_EQ(-100, load(2, 1, 0)->forward(Mat(chw(1, 0, 3), nullptr), top, get_default_option()));
}

TEST(UpsamplingFloatFallback, AllocatorsThatFailGiveMinusHundredAndNoLeak) {
    for (const bool blob_fails : {true, false}) {
        PoisoningAllocator blobs, workspace;
        blobs.fail = blob_fails;
        workspace.fail = !blob_fails;
        Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        {
            Mat top;
            EXPECT_EQ(-100, load(2, 1, 0)->forward(random_tensor(4, 2, 2, 1), top, opt));
        }
        EXPECT_EQ(0, blobs.alive);
        EXPECT_EQ(0, workspace.alive);
    }
}

}  // namespace
