#include <gtest/gtest.h>

#include <climits>

#include "support/convolutions.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;
using Data = ConvolutionArrays;

constexpr const char* plain = "Deconvolution_Float_Fallback";
constexpr const char* grouped = "DeconvolutionDepthwise_Float_Fallback";

void expect_deconvolution(const char* name, const ConvolutionCase& a) {
    SCOPED_TRACE(name);
    SCOPED_TRACE(a.text());
    const Data data(a);
    auto op = load_convolution(name, a, data);
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    // The operator keeps a block of the plain heap that fits; this one is full of NaN.
    Mat top(chw(a.num_output, a.stride_h * a.h + 2, a.stride_w * a.w + 2), nullptr);
    std::memset(top.data, 0xff, static_cast<size_t>(top.shape.total()) * sizeof(float));
    ASSERT_EQ(0, op->forward(data.bottom(a), top, opt));
    // The blocks of these tops come from the plain heap.
    EXPECT_EQ(nullptr, top.allocator);
    EXPECT_EQ(0, blobs.calls);
    EXPECT_EQ(0, workspace.calls);
    expect_same_bits(reference_deconvolution(a, data), top);
}

TEST(DeconvolutionFloatFallback, EveryOutputIsOneFloatChainInScatterOrder) {
    unsigned int seed = 1;
    for (const int c : {1, 3, 4, 5, 8})
        for (const int kernel : {1, 2, 3, 4, 5})
            for (const int stride : {1, 2, 3})
                for (const int dilation : {1, 2})
                    for (const bool bias : {false, true}) {
                        ConvolutionCase a;
                        a.c = c;
                        a.h = 3 + static_cast<int>(seed % 4);
                        a.w = 1 + static_cast<int>(seed % 41);
                        a.num_output = 1 + static_cast<int>(seed % 3);
                        a.kernel_w = a.kernel_h = kernel;
                        a.stride_w = a.stride_h = stride;
                        a.dilation_w = a.dilation_h = dilation;
                        a.pad_w = a.pad_h = static_cast<int>(seed % 2);
                        a.bias = bias;
                        a.seed = seed++;
                        expect_deconvolution(plain, a);
                    }
}

TEST(DeconvolutionFloatFallback, DirectionsAreIndependent) {
    ConvolutionCase a;
    a.c = 3;
    a.h = 4;
    a.w = 21;
    a.num_output = 2;
    a.kernel_w = 5;
    a.kernel_h = 7;
    a.stride_w = 3;
    a.stride_h = 2;
    a.dilation_h = 2;
    a.pad_w = 2;
    a.bias = true;
    expect_deconvolution(plain, a);
    a.pad_w = 0;
    a.pad_h = 1;
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, ThreeByThreeWithStrideOneAndPadOneKeepsTheSize) {
    ConvolutionCase a;
    a.c = a.num_output = 2;
    a.h = a.w = 8;
    a.kernel_w = a.kernel_h = 3;
    const Data data(a);
    Mat top;
    ASSERT_EQ(0,
              load_convolution(plain, a, data)->forward(data.bottom(a), top, get_default_option()));
    EXPECT_EQ(chw(2, 10, 10), top.shape);
    a.pad_w = a.pad_h = 1;
    Mat cut;
    ASSERT_EQ(0,
              load_convolution(plain, a, data)->forward(data.bottom(a), cut, get_default_option()));
    EXPECT_EQ(chw(2, 8, 8), cut.shape);
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, FourByFourWithStrideTwoAndPadOneDoublesTheSize) {
    ConvolutionCase a;
    a.c = a.num_output = 2;
    a.h = a.w = 8;
    a.kernel_w = a.kernel_h = 4;
    a.stride_w = a.stride_h = 2;
    const Data data(a);
    Mat top;
    ASSERT_EQ(0,
              load_convolution(plain, a, data)->forward(data.bottom(a), top, get_default_option()));
    EXPECT_EQ(chw(2, 18, 18), top.shape);
    a.pad_w = a.pad_h = 1;
    Mat cut;
    ASSERT_EQ(0,
              load_convolution(plain, a, data)->forward(data.bottom(a), cut, get_default_option()));
    EXPECT_EQ(chw(2, 16, 16), cut.shape);
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, TheKernelDoesNotEnterTheSizeAndAWideOneRunsIntoTheNextRow) {
    ConvolutionCase a;
    a.h = 1;
    a.w = 1;
    a.kernel_w = 5;
    a.kernel_h = 1;
    Data data(a);
    data.input = {1};
    data.weights = {1, 2, 3, 4, 5};
    Mat top;
    ASSERT_EQ(0,
              load_convolution(plain, a, data)->forward(data.bottom(a), top, get_default_option()));
    ASSERT_EQ(chw(1, 3, 3), top.shape);
    EXPECT_EQ((std::vector<float>{1, 2, 3, 4, 5, 0, 0, 0, 0}), values_of(top));
}

TEST(DeconvolutionFloatFallback, WhatRunsPastAChannelLeavesNoTraceInTheNext) {
    ConvolutionCase a;
    a.c = 2;
    a.num_output = 3;
    a.h = a.w = 3;
    a.kernel_w = a.kernel_h = 6;
    a.bias = true;
    expect_deconvolution(plain, a);
    a.dilation_w = a.dilation_h = 3;
    expect_deconvolution(plain, a);
    a.c = a.num_output = a.group = 3;
    expect_deconvolution(grouped, a);
}

TEST(DeconvolutionFloatFallback, AKernelOfMoreTapsThanTheStackTableHoldsIsComputedToo) {
    ConvolutionCase a;
    a.c = 2;
    a.num_output = 2;
    a.h = a.w = 4;
    a.kernel_w = 12;
    a.kernel_h = 13;
    a.stride_w = a.stride_h = 11;
    expect_deconvolution(plain, a);
    a.stride_w = a.stride_h = 2;
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, ADilationOfZeroPutsAllTapsOnOneElement) {
    ConvolutionCase a;
    a.c = 2;
    a.num_output = 2;
    a.h = a.w = 5;
    a.kernel_w = a.kernel_h = 3;
    a.dilation_w = a.dilation_h = 0;
    expect_deconvolution(plain, a);
    a.dilation_w = 1;
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, AStrideWiderThanTheKernelLeavesTheBiasBetween) {
    ConvolutionCase a;
    a.c = 2;
    a.num_output = 2;
    a.h = 3;
    a.w = 20;
    a.kernel_w = a.kernel_h = 2;
    a.stride_w = a.stride_h = 5;
    a.bias = true;
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, NegativePaddingCutsNothing) {
    ConvolutionCase a;
    a.c = a.num_output = 2;
    a.h = a.w = 4;
    a.kernel_w = a.kernel_h = 3;
    a.pad_w = a.pad_h = -233;
    const Data data(a);
    Mat top;
    ASSERT_EQ(0,
              load_convolution(plain, a, data)->forward(data.bottom(a), top, get_default_option()));
    EXPECT_EQ(chw(2, 6, 6), top.shape);
}

TEST(DeconvolutionFloatFallback, ACutThatLeavesNothingGivesMinusHundred) {
    ConvolutionCase a;
    a.h = a.w = 4;
    a.kernel_w = a.kernel_h = 3;
    a.pad_w = a.pad_h = 3;
    const Data data(a);
    for (const char* name : {plain, grouped}) {
        Mat top;
        EXPECT_EQ(
            -100,
            load_convolution(name, a, data)->forward(data.bottom(a), top, get_default_option()));
    }
}

TEST(DeconvolutionFloatFallback, ATopOfTheRightShapeInThePlainHeapIsWrittenInPlace) {
    ConvolutionCase a;
    a.c = a.num_output = 2;
    a.h = a.w = 4;
    a.kernel_w = a.kernel_h = 3;
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    Mat top(chw(2, 6, 6), nullptr);
    void* const block = top.data;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    EXPECT_EQ(block, top.data);
    expect_same_bits(reference_deconvolution(a, data), top);

    PoisoningAllocator blobs;
    {
        Mat pooled(chw(2, 6, 6), &blobs);
        void* const pooled_block = pooled.data;
        ASSERT_EQ(0, op->forward(data.bottom(a), pooled, get_default_option()));
        EXPECT_NE(pooled_block, pooled.data);
        EXPECT_EQ(nullptr, pooled.allocator);
        expect_same_bits(reference_deconvolution(a, data), pooled);
    }
    EXPECT_EQ(0, blobs.alive);
}

TEST(DeconvolutionFloatFallback, ASizeThatNoHeapHasGivesMinusHundredAndKeepsTheTop) {
    ConvolutionCase a;
    a.stride_w = a.stride_h = 40000;
    const Data data(a);
    for (const char* name : {plain, grouped}) {
        AssertRecorder assertions;
        auto op = load_convolution(name, a, data);
        Mat top = random_tensor(1, 2, 2, 3);
        void* const block = top.data;
        EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
        EXPECT_EQ(block, top.data);
        EXPECT_EQ(1u, assertions.count("false && \"malloc failed\""));
    }
}

TEST(DeconvolutionFloatFallback, ChannelsBeyondTheWeightsMeetZeros) {
    ConvolutionCase a;
    a.c = 2;
    a.num_output = 2;
    a.h = a.w = 5;
    a.kernel_w = a.kernel_h = 3;
    Data data(a);
    auto op = load_convolution(plain, a, data);
    ConvolutionCase more = a;
    more.c = 5;
    data.input = random_floats(5 * 5 * 5, 8);
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(more), top, get_default_option()));
    expect_same_bits(reference_deconvolution(more, data), top);
}

TEST(DeconvolutionFloatFallback, ATensorOfAnotherLayoutOrElementSizeRaisesTheAssertion) {
    ConvolutionCase a;
    const Data data(a);
    for (const char* name : {plain, grouped}) {
        auto op = load_convolution(name, a, data);
        for (const TensorShape& shape : {TensorShape(TensorShape::C4HW4, 1, 1, 4, 4),
                                         TensorShape(TensorShape::CHW, 1, 1, 4, 2)}) {
            AssertRecorder assertions;
            Mat top;
            EXPECT_FALSE(op->check_forward(shape));
            EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
            ASSERT_EQ(1u, assertions.count());
            EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
            EXPECT_EQ(name == plain ? "deconvolution_float_fallback"
                                    : "deconvolutiondepthwise_float_fallback",
                      assertions.last().source);
        }
    }
}

TEST(DeconvolutionFloatFallback, NumbersThatMakeNoConvolutionAreRefusedWithoutAFault) {
    ConvolutionCase good;
    good.c = good.num_output = 2;
    good.h = good.w = 5;
    good.kernel_w = good.kernel_h = 3;
    const Data data(good);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), nullptr);
    const struct {
        int id;
        int value;
    } changes[] = {{0, 0},       {0, -2},      {1, 0},       {2, -1},      {3, -1},
                   {5, 0},       {6, -3},      {3, INT_MAX}, {4, 1 << 30}, {7, INT_MAX},
                   {8, INT_MAX}, {1, INT_MAX}, {10, 4},      {5, INT_MAX}, {6, INT_MAX}};
    for (const char* name : {plain, grouped}) {
        for (const auto& change : changes) {
            SCOPED_TRACE(testing::Message()
                         << name << ", id " << change.id << " = " << change.value);
            ParamDict pd = good.params();
            pd.set(change.id, change.value);
            auto op = make_operator(name);
            ASSERT_EQ(0, op->load(pd, arrays, {nullptr, 0, 0}));
            Mat top;
            EXPECT_EQ(-100, op->forward(data.bottom(good), top, get_default_option()));
        }
    }
}

TEST(DeconvolutionFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    ConvolutionCase a;
    a.h = a.w = 3;
    a.bias = true;
    const Data data(a);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), data.bias.data());
    for (const char* name : {plain, grouped}) {
        for (const int type : {0, 1}) {
            auto op = make_operator(name);
            EXPECT_EQ(-100, op->load(a.params(), WithoutArray(arrays, type, 0), {nullptr, 0, 0}));
            Mat top;
            EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
        }
    }
}

TEST(DeconvolutionFloatFallback, ItsNameIsItsClassName) {
    for (const char* name : {plain, grouped})
        EXPECT_EQ(name, make_operator(name)->name());
}

TEST(DeconvolutionDepthwiseFloatFallback, ADepthwiseOutputIsOneFloatChainOverItsChannel) {
    unsigned int seed = 1;
    for (const int c : {1, 3, 4, 5, 8})
        for (const int kernel : {1, 2, 3, 4, 5})
            for (const int stride : {1, 2, 3})
                for (const int dilation : {1, 2})
                    for (const bool bias : {false, true}) {
                        ConvolutionCase a;
                        a.c = a.num_output = a.group = c;
                        a.h = 3 + static_cast<int>(seed % 4);
                        a.w = 1 + static_cast<int>(seed % 43);
                        a.kernel_w = a.kernel_h = kernel;
                        a.stride_w = a.stride_h = stride;
                        a.dilation_w = a.dilation_h = dilation;
                        a.pad_w = a.pad_h = static_cast<int>(seed % 2);
                        a.bias = bias;
                        a.seed = seed++;
                        expect_deconvolution(grouped, a);
                    }
}

TEST(DeconvolutionDepthwiseFloatFallback, AGroupSeesItsOwnChannelsOnly) {
    unsigned int seed = 900;
    for (const int group : {1, 2, 3})
        for (const int inputs : {1, 2, 3})
            for (const int outputs : {1, 2, 5}) {
                ConvolutionCase a;
                a.group = group;
                a.c = group * inputs;
                a.num_output = group * outputs;
                a.h = 4;
                a.w = 19;
                a.kernel_w = a.kernel_h = 4;
                a.stride_w = a.stride_h = 2;
                a.pad_w = a.pad_h = 1;
                a.bias = seed % 2 == 0;
                a.seed = seed++;
                expect_deconvolution(grouped, a);
            }
}

TEST(DeconvolutionDepthwiseFloatFallback, ChannelsThatDoNotDivideRaiseTheAssertion) {
    const struct {
        int c, num_output, group;
    } cases[] = {{5, 4, 2}, {4, 5, 2}, {4, 4, 0}, {4, 4, -2}};
    for (const auto& each : cases) {
        SCOPED_TRACE(testing::Message() << each.c << " " << each.num_output << " " << each.group);
        ConvolutionCase a;
        a.c = each.c;
        a.num_output = each.num_output;
        a.h = a.w = 3;
        const Data data(a);
        ParamDict pd = a.params();
        pd.set(11, each.group);
        auto op = make_operator(grouped);
        ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(data.weights.data(), nullptr),
                              {nullptr, 0, 0}));
        AssertRecorder assertions;
        Mat top;
        EXPECT_FALSE(op->check_forward(chw(each.c, 3, 3)));
        EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
        EXPECT_EQ(1u, assertions.count("false && \"Invalid forward pre-conditions\""));
    }
}

}  // namespace
