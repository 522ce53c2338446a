#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <sstream>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr const char* name = "Pooling_Float_Fallback";

struct PoolingCase {
    int c = 1, h = 1, w = 1;
    int type = 0;
    int kernel_w = 1, kernel_h = 1, stride_w = 1, stride_h = 1;
    int left = 0, right = 0, top = 0, bottom = 0;
    int mode = 1;
    unsigned int seed = 1;

    std::string text() const {
        std::ostringstream out;
        out << "seed " << seed << ", type " << type << ", " << c << "x" << h << "x" << w
            << ", kernel " << kernel_w << "x" << kernel_h << ", stride " << stride_w << "x"
            << stride_h << ", pads " << left << " " << right << " " << top << " " << bottom
            << ", mode " << mode;
        return out.str();
    }
    ParamDict params() const {
        const int values[] = {type,  kernel_w, kernel_h, stride_w, stride_h, left,
                              right, top,      bottom,   0,        mode};
        ParamDict pd;
        for (int id = 0; id < 11; ++id)
            pd.set(id, values[id]);
        return pd;
    }
};

std::unique_ptr<OperatorSISO> load(const ParamDict& pd) {
    auto op = make_operator(name);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    return op;
}

struct Pooled {
    TensorShape shape;
    std::vector<float> chain;
    std::vector<double> exact, magnitude;
    int64_t terms = 0;
};

Pooled reference_pooling(const PoolingCase& a, const std::vector<float>& input) {
    int above = 0, below = 0, left = 0, right = 0, tail_w = 0, tail_h = 0;
    if (a.mode == 0) {
        const int rest_w = (a.w + a.left + a.right - a.kernel_w) % a.stride_w;
        const int rest_h = (a.h + a.top + a.bottom - a.kernel_h) % a.stride_h;
        if (rest_w != 0) tail_w = a.stride_w - rest_w;
        if (rest_h != 0) tail_h = a.stride_h - rest_h;
    }
    if (a.mode == 0 || a.mode == 1) {
        above = a.top;
        below = a.bottom + tail_h;
        left = a.left;
        right = a.right + tail_w;
    }
    if (a.mode == 2) {
        const int wpad = a.kernel_w + (a.w - 1) / a.stride_w * a.stride_w - a.w;
        const int hpad = a.kernel_h + (a.h - 1) / a.stride_h * a.stride_h - a.h;
        if (wpad > 0 || hpad > 0) {
            above = hpad / 2;
            below = hpad - hpad / 2;
            left = wpad / 2;
            right = wpad - wpad / 2;
        }
    }
    const int64_t ph = a.h + above + below, pw = a.w + left + right;
    std::vector<float> padded(static_cast<size_t>(a.c * ph * pw), 0.0f);
    for (int q = 0; q < a.c; ++q)
        for (int y = 0; y < a.h; ++y)
            for (int x = 0; x < a.w; ++x)
                padded[static_cast<size_t>((q * ph + y + above) * pw + x + left)] =
                    input[static_cast<size_t>((q * a.h + y) * a.w + x)];
    const int outw = static_cast<int>((pw - a.kernel_w) / a.stride_w + 1);
    const int outh = static_cast<int>((ph - a.kernel_h) / a.stride_h + 1);
    Pooled result;
    result.shape = chw(a.c, outh, outw);
    result.terms = static_cast<int64_t>(a.kernel_w) * a.kernel_h + 4;
    for (int q = 0; q < a.c; ++q)
        for (int y = 0; y < outh; ++y)
            for (int x = 0; x < outw; ++x) {
                float best = 0.0f, sum = 0.0f;
                double exact = 0.0, magnitude = 0.0;
                for (int ky = 0; ky < a.kernel_h; ++ky)
                    for (int kx = 0; kx < a.kernel_w; ++kx) {
                        const size_t i = static_cast<size_t>((q * ph + y * a.stride_h + ky) * pw +
                                                             x * a.stride_w + kx);
                        const float v = i < padded.size() ? padded[i] : 0.0f;
                        best = ky == 0 && kx == 0 ? v : std::max(best, v);
                        sum += v;
                        exact += v;
                        magnitude += std::fabs(v);
                    }
                const int area = a.kernel_w * a.kernel_h;
                if (a.type == 0) {
                    result.chain.push_back(best);
                    result.exact.push_back(best);
                    result.magnitude.push_back(0.0);
                    continue;
                }
                float value = sum / static_cast<float>(area);
                exact /= area;
                magnitude /= area;
                const auto scale = [&](int kernel, int pad) {
                    value *= static_cast<float>(kernel) / static_cast<float>(kernel - pad);
                    exact *= static_cast<double>(kernel) / (kernel - pad);
                    magnitude *= static_cast<double>(kernel) / (kernel - pad);
                };
                if (y == 0 && a.top != 0) scale(a.kernel_h, a.top);
                if (y == outh - 1 && a.bottom + tail_h != 0) scale(a.kernel_h, a.bottom + tail_h);
                if (x == 0 && a.left != 0) scale(a.kernel_w, a.left);
                if (x == outw - 1 && a.right + tail_w != 0) scale(a.kernel_w, a.right + tail_w);
                result.chain.push_back(value);
                result.exact.push_back(exact);
                result.magnitude.push_back(magnitude);
            }
    return result;
}

void expect_pooling(const PoolingCase& a) {
    SCOPED_TRACE(a.text());
    std::vector<float> input = random_floats(static_cast<size_t>(a.c) * a.h * a.w, a.seed);
    const Pooled expected = reference_pooling(a, input);
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    {
        Mat top;
        ASSERT_EQ(
            0, load(a.params())->forward(Mat(chw(a.c, a.h, a.w), input.data(), nullptr), top, opt));
        ASSERT_EQ(expected.shape, top.shape);
        EXPECT_EQ(&blobs, top.allocator);
        const auto values = values_of(top);
        for (size_t i = 0; i < values.size(); ++i) {
            // A tail as wide as the kernel makes the correction infinite, and 0 times that is NaN.
            if (std::isnan(expected.chain[i])) {
                ASSERT_TRUE(std::isnan(values[i])) << "element " << i;
                continue;
            }
            ASSERT_EQ(expected.chain[i], values[i]) << "element " << i;
            ASSERT_LE(std::fabs(expected.exact[i] - values[i]),
                      sum_error_bound(expected.terms, std::fabs(expected.magnitude[i])))
                << "element " << i;
        }
    }
    EXPECT_EQ(0, blobs.alive);
    EXPECT_EQ(0, workspace.alive);
}

TEST(PoolingFloatFallback, MaximaAndAveragesFollowTheirWindowsOverAllShapes) {
    unsigned int seed = 50;
    for (const int type : {0, 1})
        for (const int c : {1, 3, 4, 5, 8})
            for (const int kernel : {1, 2, 3, 5})
                for (const int stride : {1, 2, 3})
                    for (const int mode : {0, 1, 3}) {
                        PoolingCase a;
                        a.type = type;
                        a.c = c;
                        a.h = 7 + static_cast<int>(seed % 3);
                        a.w = 7 + static_cast<int>(seed % 31);
                        a.kernel_w = a.kernel_h = kernel;
                        a.stride_w = a.stride_h = stride;
                        const int pad = kernel > 2 ? static_cast<int>(seed % 2) : 0;
                        a.left = a.right = a.top = a.bottom = pad;
                        a.mode = mode;
                        a.seed = seed++;
                        expect_pooling(a);
                    }
}

TEST(PoolingFloatFallback, PaddingThatKeepsTheSizeIgnoresThePadFieldsButCorrectsByThem) {
    for (const int type : {0, 1})
        for (const int kernel : {2, 3, 4})
            for (const int stride : {1, 2}) {
                PoolingCase a;
                a.type = type;
                a.c = 3;
                a.h = 6;
                a.w = 9;
                a.kernel_w = a.kernel_h = kernel;
                a.stride_w = a.stride_h = stride;
                a.mode = 2;
                expect_pooling(a);
                a.left = a.top = 1;
                expect_pooling(a);
            }
}

TEST(PoolingFloatFallback, EveryEdgeHasItsOwnPadding) {
    PoolingCase a;
    a.type = 1;
    a.c = 2;
    a.h = 6;
    a.w = 20;
    a.kernel_w = 5;
    a.kernel_h = 4;
    a.stride_w = 3;
    a.stride_h = 2;
    a.left = 1;
    a.right = 2;
    a.top = 3;
    a.bottom = 0;
    for (const int mode : {0, 1, 2, 7}) {
        a.mode = mode;
        expect_pooling(a);
    }
}

TEST(PoolingFloatFallback, TheBorderOfAMaximumIsZeroSoNegativeEdgesBecomeZero) {
    ParamDict pd;
    pd.set(0, 0);
    pd.set(1, 3);
    pd.set(3, 2);
    pd.set(5, 1);
    pd.set(7, 1);
    pd.set(10, 1);
    std::vector<float> input(25, -3.0f);
    Mat top;
    ASSERT_EQ(
        0, load(pd)->forward(Mat(chw(1, 5, 5), input.data(), nullptr), top, get_default_option()));
    EXPECT_EQ((std::vector<float>{0, 0, 0, 0, -3, 0, 0, 0, 0}), values_of(top));
}

TEST(PoolingFloatFallback, AnAverageAtAPaddedEdgeIsCorrectedAndACornerTwice) {
    PoolingCase a;
    a.type = 1;
    a.h = a.w = 4;
    a.kernel_w = a.kernel_h = 3;
    a.left = a.right = a.top = a.bottom = 1;
    std::vector<float> input(16, 1.0f);
    Mat top;
    ASSERT_EQ(0,
              load(a.params())
                  ->forward(Mat(chw(1, 4, 4), input.data(), nullptr), top, get_default_option()));
    const auto values = values_of(top);
    const float corner = 4.0f / 9.0f * 1.5f * 1.5f, edge = 6.0f / 9.0f * 1.5f;
    EXPECT_EQ(corner, values[0]);
    EXPECT_EQ(edge, values[1]);
    EXPECT_EQ(corner, values[3]);
    EXPECT_EQ(edge, values[4]);
    EXPECT_EQ(1.0f, values[5]);
    EXPECT_EQ(corner, values[15]);
}

TEST(PoolingFloatFallback, FullWindowsPadOnBehindTheLastOne) {
    PoolingCase a;
    a.h = 7;
    a.kernel_w = a.kernel_h = 3;
    a.stride_w = a.stride_h = 2;
    a.mode = 0;
    const struct { int w, outw; } sizes[] = {{7, 3}, {8, 4}};
    for (const auto& size : sizes) {
        a.w = size.w;
        for (const int type : {0, 1}) {
            a.type = type;
            expect_pooling(a);
        }
        Mat top;
        ASSERT_EQ(
            0, load(a.params())->forward(random_tensor(1, 7, a.w, 4), top, get_default_option()));
        EXPECT_EQ(chw(1, 3, size.outw), top.shape);
    }
}

TEST(PoolingFloatFallback, ATailAsWideAsTheKernelMakesTheCorrectionInfinite) {
    // (5 - 1) % 3 = 1, so two more columns, and 1 - 2 columns of the last window are left.
    PoolingCase a;
    a.type = 1;
    a.w = 5;
    a.stride_w = 3;
    a.mode = 0;
    std::vector<float> input = {1, 2, 3, 4, 5};
    Mat top;
    ASSERT_EQ(0,
              load(a.params())
                  ->forward(Mat(chw(1, 1, 5), input.data(), nullptr), top, get_default_option()));
    EXPECT_EQ((std::vector<float>{1, 4, -0.0f}), values_of(top));
    a.kernel_w = 2;
    a.stride_w = 3;
    a.w = 6;
    input = {1, 1, 1, 1, 1, 1};
    // (6 - 2) % 3 = 1: two more columns, and the last window has no column left.
    ASSERT_EQ(0,
              load(a.params())
                  ->forward(Mat(chw(1, 1, 6), input.data(), nullptr), top, get_default_option()));
    EXPECT_EQ(1.0f, values_of(top)[0]);
    EXPECT_TRUE(std::isnan(values_of(top)[2]));
}

TEST(PoolingFloatFallback, GlobalPoolingMakesARowInThePlainHeap) {
    for (const int type : {0, 1})
        for (const int c : {1, 3, 8}) {
            const unsigned int seed = 70 + static_cast<unsigned int>(c);
            SCOPED_TRACE(seed);
            const auto input = random_floats(static_cast<size_t>(c) * 35, seed);
            ParamDict pd;
            pd.set(0, type);
            pd.set(9, 1);
            PoisoningAllocator blobs;
            Option opt;
            opt.blob_allocator = &blobs;
            Mat top;
            ASSERT_EQ(0, load(pd)->forward(Mat::from_float_array(input.data(), 5, 7, c,
                                                                 TensorShape::CHW, nullptr),
                                           top, opt));
            EXPECT_EQ(0, blobs.calls);
            EXPECT_EQ(nullptr, top.allocator);
            ASSERT_EQ(chw(1, 1, c), top.shape);
            for (size_t q = 0; q < static_cast<size_t>(c); ++q) {
                float best = input[q * 35], sum = 0.0f;
                double exact = 0.0, magnitude = 0.0;
                for (size_t i = q * 35; i < q * 35 + 35; ++i) {
                    best = std::max(best, input[i]);
                    sum += input[i];
                    exact += input[i];
                    magnitude += std::fabs(input[i]);
                }
                const float value = values_of(top)[q];
                EXPECT_EQ(type == 0 ? best : sum / 35.0f, value);
                if (type == 1) {
                    EXPECT_NEAR(exact / 35, value, sum_error_bound(36, magnitude / 35));
                }
            }
        }
}

TEST(PoolingFloatFallback, AMaximumKeepsANanThatComesFirstAndPassesOverOthers) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    PoolingCase a;
    a.w = 6;
    a.h = 1;
    a.kernel_w = 3;
    a.stride_w = 3;
    std::vector<float> input = {nan, 1, 2, 3, nan, 5};
    Mat top;
    ASSERT_EQ(0,
              load(a.params())
                  ->forward(Mat(chw(1, 1, 6), input.data(), nullptr), top, get_default_option()));
    EXPECT_TRUE(std::isnan(values_of(top)[0]));
    EXPECT_EQ(5.0f, values_of(top)[1]);
}

TEST(PoolingFloatFallback, AWindowWiderThanTheBottomByLessThanAStrideRunsOn) {
    for (const int type : {0, 1}) {
        PoolingCase a;
        a.type = type;
        a.c = 2;
        a.h = 3;
        a.w = 2;
        a.kernel_w = a.kernel_h = 3;
        a.stride_w = a.stride_h = 2;
        expect_pooling(a);
        a.c = a.h = a.w = 1;
        a.kernel_w = a.kernel_h = 2;
        expect_pooling(a);
    }
}

TEST(PoolingFloatFallback, WithoutABorderNothingIsCopied) {
    PoolingCase a;
    a.h = a.w = 4;
    a.kernel_w = a.kernel_h = a.stride_w = a.stride_h = 2;
    for (const int mode : {0, 1, 2, 3}) {
        a.mode = mode;
        PoisoningAllocator workspace;
        Option opt;
        opt.workspace_allocator = &workspace;
        Mat top;
        ASSERT_EQ(0, load(a.params())->forward(random_tensor(1, 4, 4, 4), top, opt));
        EXPECT_EQ(0, workspace.calls);
    }
}

TEST(PoolingFloatFallback, ParametersHaveTheirDefaults) {
    // kernel_h, stride_h, pad_right, pad_top's pad_bottom follow; the mode keeps the size.
    ParamDict pd;
    pd.set(1, 3);
    pd.set(3, 2);
    PoolingCase a;
    a.c = 2;
    a.h = a.w = 7;
    a.kernel_w = a.kernel_h = 3;
    a.stride_w = a.stride_h = 2;
    a.mode = 2;
    const auto input = random_floats(98, 4);
    Mat top;
    ASSERT_EQ(0, load(pd)->forward(random_tensor(2, 7, 7, 4), top, get_default_option()));
    EXPECT_EQ(reference_pooling(a, input).shape, top.shape);
    EXPECT_EQ(reference_pooling(a, input).chain, values_of(top));
    pd.set(5, 1);
    pd.set(7, 2);
    pd.set(10, 1);
    a.left = a.right = 1;
    a.top = a.bottom = 2;
    a.mode = 1;
    Mat other;
    ASSERT_EQ(0, load(pd)->forward(random_tensor(2, 7, 7, 4), other, get_default_option()));
    EXPECT_EQ(reference_pooling(a, input).shape, other.shape);
    EXPECT_EQ(reference_pooling(a, input).chain, values_of(other));
}

TEST(PoolingFloatFallback, NumbersThatMakeNoPoolingAreRefusedWithoutAFault) {
    PoolingCase good;
    good.h = good.w = 6;
    good.kernel_w = good.kernel_h = 3;
    const struct {
        int id;
        int value;
    } changes[] = {{0, 2},       {0, -1}, {1, 0},       {2, -1},      {3, 0},       {4, -2}, {1, 9},
                   {2, INT_MAX}, {5, -4}, {6, INT_MAX}, {7, INT_MAX}, {8, INT_MAX}, {8, -40}};
    for (const int mode : {0, 1})
        for (const auto& change : changes) {
            SCOPED_TRACE(testing::Message()
                         << "mode " << mode << ", id " << change.id << " = " << change.value);
            good.mode = mode;
            ParamDict pd = good.params();
            pd.set(change.id, change.value);
            Mat top;
            EXPECT_EQ(-100,
                      load(pd)->forward(random_tensor(1, 6, 6, 4), top, get_default_option()));
        }
    ParamDict pd = good.params();
    Mat top;
    EXPECT_EQ(-100, load(pd)->forward(Mat(chw(1, 0, 6), nullptr), top, get_default_option()));
    pd.set(3, INT_MAX);
    pd.set(10, 0);
    EXPECT_EQ(-100, load(pd)->forward(random_tensor(1, 6, 6, 4), top, get_default_option()));
}

TEST(PoolingFloatFallback, AllocatorsThatFailGiveMinusHundredAndNoLeak) {
    PoolingCase a;
    a.h = a.w = 5;
    a.kernel_w = a.kernel_h = 3;
    a.left = a.right = a.top = a.bottom = 1;
    for (const bool blob_fails : {true, false}) {
        PoisoningAllocator blobs, workspace;
        blobs.fail = blob_fails;
        workspace.fail = !blob_fails;
        Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        {
            Mat top;
            EXPECT_EQ(-100, load(a.params())->forward(random_tensor(1, 5, 5, 4), top, opt));
        }
        EXPECT_EQ(0, blobs.alive);
        EXPECT_EQ(0, workspace.alive);
    }
}

TEST(PoolingFloatFallback, ATensorOfAnotherLayoutRaisesTheAssertion) {
    auto op = load(PoolingCase().params());
    for (const TensorShape& shape :
         {TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), TensorShape(TensorShape::CHW, 1, 1, 4, 1)}) {
        AssertRecorder assertions;
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ("pooling_float_fallback", assertions.last().source);
    }
    EXPECT_EQ(name, op->name());
}

}  // namespace
