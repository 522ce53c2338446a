#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "support/guarded_floats.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

enum { nearest = 0, bilinear = 1 };

std::unique_ptr<OperatorSISO> loaded(float scale, int mode, int align_corners = 0) {
    auto op = make_operator("Upsampling_Float_SSE_C4HW4");
    ParamDict pd;
    pd.set(0, scale);
    pd.set(1, mode);
    pd.set(2, align_corners);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    return op;
}

TensorShape c4hw4(int blocks, int h, int columns) {
    return TensorShape(TensorShape::C4HW4, blocks, h, 4 * columns, 4);
}

float at(const std::vector<float>& values, const TensorShape& shape, int q, int y, int x) {
    return values[((static_cast<size_t>(q) / 4 * shape.h + y) * shape.w) + 4 * x + q % 4];
}

struct Result {
    TensorShape shape;
    std::vector<float> values;
};

Result run(OperatorSISO& op, const TensorShape& shape, const std::vector<float>& values) {
    GuardedFloats bottom(shape, values, 1);
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    Result result;
    {
        Mat top;
        EXPECT_EQ(0, op.forward(bottom.view(), top, opt));
        EXPECT_EQ(&blobs, top.allocator);
        EXPECT_EQ(1, *top.refcount);
        result = {top.shape, values_of(top)};
    }
    EXPECT_TRUE(bottom.guards_intact());
    EXPECT_EQ(values, bottom.values());
    EXPECT_EQ(0, blobs.alive);
    EXPECT_EQ(0, workspace.calls);
    return result;
}

TEST(UpsamplingFloatSseC4hw4, NearestRepeatsEveryPixel) {
    for (const int scale : {2, 4}) {
        for (const int blocks : {1, 2, 3}) {
            for (const int h : {1, 2, 5}) {
                for (const int w : {1, 2, 3, 8}) {
                    const TensorShape shape = c4hw4(blocks, h, w);
                    const auto values = random_floats(static_cast<size_t>(shape.total()), 3);
                    const Result top =
                        run(*loaded(static_cast<float>(scale), nearest), shape, values);
                    ASSERT_EQ(c4hw4(blocks, h * scale, w * scale), top.shape);
                    for (int q = 0; q < 4 * blocks; ++q) {
                        for (int y = 0; y < h * scale; ++y) {
                            for (int x = 0; x < w * scale; ++x) {
                                ASSERT_EQ(at(values, shape, q, y / scale, x / scale),
                                          at(top.values, top.shape, q, y, x));
                            }
                        }
                    }
                }
            }
        }
    }
}

// Where outputs lie between the inputs of a row of n, by the definition: a running sum in float.
struct Place {
    int before;
    float t;
};

std::vector<Place> places(int n, bool align_corners) {
    float step = 0.5f, position = 0.25f;
    if (align_corners) {
        step = static_cast<float>((n - 1) / (2.0 * n - 1));
        position = step;
    }
    std::vector<Place> result(1, Place{0, 0.0f});
    for (int i = 0; i < n - 1; ++i) {
        const float t = position - std::trunc(position);
        result.push_back({i, t});
        result.push_back({i, t + step});
        position += 2 * step;
    }
    result.push_back({n - 1, 0.0f});
    return result;
}

float mix(float a, float b, float t) {
    if (t == 0.0f) return a;
    const float of_a = (1.0f - t) * a;
    const float of_b = t * b;
    return of_a + of_b;
}

TEST(UpsamplingFloatSseC4hw4, BilinearIsTheFloatChainOfTheDefinitionPerChannel) {
    unsigned int seed = 20;
    for (const int align_corners : {0, 1}) {
        for (const int blocks : {1, 3}) {
            for (const int h : {1, 2, 3, 7, 30}) {
                for (const int w : {1, 2, 3, 6, 33}) {
                    SCOPED_TRACE(seed);
                    const TensorShape shape = c4hw4(blocks, h, w);
                    const auto values = random_floats(static_cast<size_t>(shape.total()), seed++);
                    const Result top = run(*loaded(2.0f, bilinear, align_corners), shape, values);
                    ASSERT_EQ(c4hw4(blocks, 2 * h, 2 * w), top.shape);
                    const auto rows = places(h, align_corners != 0);
                    const auto columns = places(w, align_corners != 0);
                    for (int q = 0; q < 4 * blocks; ++q) {
                        for (int y = 0; y < 2 * h; ++y) {
                            const Place row = rows[y];
                            const int below = std::min(row.before + 1, h - 1);
                            for (int x = 0; x < 2 * w; ++x) {
                                const Place column = columns[x];
                                const int right = std::min(column.before + 1, w - 1);
                                const float l =
                                    mix(at(values, shape, q, row.before, column.before),
                                        at(values, shape, q, below, column.before), row.t);
                                const float r = mix(at(values, shape, q, row.before, right),
                                                    at(values, shape, q, below, right), row.t);
                                ASSERT_EQ(mix(l, r, column.t), at(top.values, top.shape, q, y, x))
                                    << "[" << q << "][" << y << "][" << x << "] of " << h << " x "
                                    << w;
                            }
                        }
                    }
                }
            }
        }
    }
}

// The same seen from the outputs, in double: where an output's centre lies in the input.
double sample(const std::vector<float>& values, const TensorShape& shape, int q, double y,
              double x) {
    const int columns = shape.w / 4;
    y = std::min(std::max(y, 0.0), shape.h - 1.0);
    x = std::min(std::max(x, 0.0), columns - 1.0);
    const int y0 = static_cast<int>(y), x0 = static_cast<int>(x);
    const int y1 = std::min(y0 + 1, shape.h - 1), x1 = std::min(x0 + 1, columns - 1);
    const double u = y - y0, t = x - x0;
    const double upper = (1 - t) * at(values, shape, q, y0, x0) + t * at(values, shape, q, y0, x1);
    const double lower = (1 - t) * at(values, shape, q, y1, x0) + t * at(values, shape, q, y1, x1);
    return (1 - u) * upper + u * lower;
}

TEST(UpsamplingFloatSseC4hw4, BilinearIsTheInterpolationBetweenPixelCentres) {
    const int h = 6, w = 9;
    const TensorShape shape = c4hw4(2, h, w);
    const auto values = random_floats(static_cast<size_t>(shape.total()), 31);
    for (const bool align_corners : {false, true}) {
        const Result top = run(*loaded(2.0f, bilinear, align_corners), shape, values);
        // The parts t and u are exact without aligned corners. With them the running sum adds one
        // rounding of a number below 16 a step and starts from a rounded step; that error counts
        // once along the row and once along the column, times a difference of at most 2.
        const double place_error = align_corners ? 2 * w * std::ldexp(16.0, -24) : 0.0;
        const double bound = sum_error_bound(4, 1.0) + 2 * 2.0 * place_error;
        for (int q = 0; q < 8; ++q) {
            for (int y = 0; y < 2 * h; ++y) {
                for (int x = 0; x < 2 * w; ++x) {
                    const double from_y =
                        align_corners ? y * (h - 1.0) / (2.0 * h - 1) : (y + 0.5) / 2 - 0.5;
                    const double from_x =
                        align_corners ? x * (w - 1.0) / (2.0 * w - 1) : (x + 0.5) / 2 - 0.5;
                    EXPECT_NEAR(sample(values, shape, q, from_y, from_x),
                                at(top.values, top.shape, q, y, x), bound);
                }
            }
        }
    }
}

TEST(UpsamplingFloatSseC4hw4, TheCornersOfTheTopAreThoseOfTheBottom) {
    const TensorShape shape = c4hw4(1, 3, 5);
    const auto values = random_floats(static_cast<size_t>(shape.total()), 32);
    for (const int align_corners : {0, 1}) {
        const Result top = run(*loaded(2.0f, bilinear, align_corners), shape, values);
        for (int q = 0; q < 4; ++q) {
            EXPECT_EQ(at(values, shape, q, 0, 0), at(top.values, top.shape, q, 0, 0));
            EXPECT_EQ(at(values, shape, q, 0, 4), at(top.values, top.shape, q, 0, 9));
            EXPECT_EQ(at(values, shape, q, 2, 0), at(top.values, top.shape, q, 5, 0));
            EXPECT_EQ(at(values, shape, q, 2, 4), at(top.values, top.shape, q, 5, 9));
        }
    }
}

TEST(UpsamplingFloatSseC4hw4, TheModeDefaultsToBilinear) {
    auto op = make_operator("Upsampling_Float_SSE_C4HW4");
    ParamDict pd;
    pd.set(0, 2.0f);
    ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    const TensorShape shape = c4hw4(1, 2, 2);
    const auto values = random_floats(16, 33);
    EXPECT_EQ(run(*loaded(2.0f, bilinear), shape, values).values, run(*op, shape, values).values);
}

TEST(UpsamplingFloatSseC4hw4, WhatIsNotThereRaisesNotImplemetedAndReturnsZero) {
    struct {
        float scale;
        int mode;
    } const cases[] = {{4.0f, bilinear}, {2.0f, 2}, {2.0f, -1}, {4.0f, 3}};
    for (const auto& c : cases) {
        AssertRecorder assertions;
        const Result top = run(*loaded(c.scale, c.mode), c4hw4(1, 1, 1), {1, 2, 3, 4});
        ASSERT_EQ(1u, assertions.count("false && \"Not implemeted\""));
        EXPECT_EQ("upsampling_float_sse_c4hw4", assertions.last().source);
        const int factor = static_cast<int>(c.scale);
        EXPECT_EQ(c4hw4(1, factor, factor), top.shape);
        for (const float x : top.values)
            EXPECT_TRUE(std::isnan(x));
    }
}

TEST(UpsamplingFloatSseC4hw4, OtherScalesAndTensorsFailTheCheck) {
    AssertRecorder assertions;
    Mat top;
    const Mat bottom =
        Mat::from_float_array(random_floats(16, 1).data(), 8, 2, 1, TensorShape::C4HW4, nullptr);
    for (const float scale : {8.0f, 3.0f, 1.0f, 2.0001f, 0.0f}) {
        EXPECT_EQ(-100, loaded(scale, nearest)->forward(bottom, top, get_default_option()));
    }
    EXPECT_EQ(-100,
              loaded(2.0f, nearest)->forward(random_tensor(4, 2, 2, 1), top, get_default_option()));
    EXPECT_EQ(-100, loaded(2.0f, nearest)
                        ->forward(Mat(TensorShape(TensorShape::C4HW4, 1, 2, 8, 2), nullptr), top,
                                  get_default_option()));
    EXPECT_EQ(7u, assertions.count("false && \"Invalid forward pre-conditions\""));
    EXPECT_EQ("upsampling_float_sse_c4hw4", assertions.last().source);
    EXPECT_TRUE(top.empty());
}

TEST(UpsamplingFloatSseC4hw4, ARowThatFourDoesNotDivideGivesMinus100) {
    Mat top;
    const Mat bottom(TensorShape(TensorShape::C4HW4, 1, 2, 6, 4), nullptr);
    EXPECT_EQ(-100, loaded(2.0f, nearest)->forward(bottom, top, get_default_option()));
}

TEST(UpsamplingFloatSseC4hw4, NoMemoryGivesMinus100) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    Mat top;
    const Mat bottom =
        Mat::from_float_array(random_floats(16, 1).data(), 8, 2, 1, TensorShape::C4HW4, nullptr);
    EXPECT_EQ(-100, loaded(2.0f, bilinear)->forward(bottom, top, opt));
    EXPECT_EQ(
        -100,
        loaded(2.0f, bilinear)->forward(Mat(c4hw4(1, 0, 2), nullptr), top, get_default_option()));
}

TEST(UpsamplingFloatSseC4hw4, CarriesItsName) {
    EXPECT_EQ("Upsampling_Float_SSE_C4HW4", loaded(2.0f, nearest)->name());
}

}  // namespace
