#include <gtest/gtest.h>

#include <climits>

#include "support/convolution_contract.h"
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
                        ConvolutionCase a = ConvolutionCase::of(c, 3 + static_cast<int>(seed % 4),
                                                                1 + static_cast<int>(seed % 41))
                                                .outputs(1 + static_cast<int>(seed % 3))
                                                .kernel(kernel)
                                                .stride(stride)
                                                .dilation(dilation)
                                                .pad(static_cast<int>(seed % 2))
                                                .with_bias(bias)
                                                .seeded(seed);
                        expect_deconvolution(plain, a);
                        ++seed;
                    }
}

TEST(DeconvolutionFloatFallback, DirectionsAreIndependent) {
    ConvolutionCase a = ConvolutionCase::of(3, 4, 21)
                            .outputs(2)
                            .kernel(5, 7)
                            .stride(3, 2)
                            .dilation(1, 2)
                            .pad(2, 0)
                            .with_bias();
    expect_deconvolution(plain, a);
    a.pad_w = 0;
    a.pad_h = 1;
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, ThreeByThreeWithStrideOneAndPadOneKeepsTheSize) {
    ConvolutionCase a = ConvolutionCase::of(2, 8, 8).outputs(2).kernel(3);
    const Data data(a);
    const Mat top = convolved(plain, a, data);
    EXPECT_EQ(chw(2, 10, 10), top.shape);
    a.pad(1);
    const Mat cut = convolved(plain, a, data);
    EXPECT_EQ(chw(2, 8, 8), cut.shape);
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, FourByFourWithStrideTwoAndPadOneDoublesTheSize) {
    ConvolutionCase a = ConvolutionCase::of(2, 8, 8).outputs(2).kernel(4).stride(2);
    const Data data(a);
    const Mat top = convolved(plain, a, data);
    EXPECT_EQ(chw(2, 18, 18), top.shape);
    a.pad(1);
    const Mat cut = convolved(plain, a, data);
    EXPECT_EQ(chw(2, 16, 16), cut.shape);
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, TheKernelDoesNotEnterTheSizeAndAWideOneRunsIntoTheNextRow) {
    ConvolutionCase a = ConvolutionCase::of(1, 1, 1).kernel(5, 1);
    Data data(a);
    data.input = {1};
    data.weights = {1, 2, 3, 4, 5};
    const Mat top = convolved(plain, a, data);
    ASSERT_EQ(chw(1, 3, 3), top.shape);
    EXPECT_EQ((std::vector<float>{1, 2, 3, 4, 5, 0, 0, 0, 0}), values_of(top));
}

TEST(DeconvolutionFloatFallback, WhatRunsPastAChannelLeavesNoTraceInTheNext) {
    ConvolutionCase a = ConvolutionCase::of(2, 3, 3).outputs(3).kernel(6).with_bias();
    expect_deconvolution(plain, a);
    a.dilation(3);
    expect_deconvolution(plain, a);
    a.c = a.num_output = a.group = 3;
    expect_deconvolution(grouped, a);
}

TEST(DeconvolutionFloatFallback, AKernelOfMoreTapsThanTheStackTableHoldsIsComputedToo) {
    ConvolutionCase a = ConvolutionCase::of(2, 4, 4).outputs(2).kernel(12, 13).stride(11);
    expect_deconvolution(plain, a);
    a.stride(2);
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, ADilationOfZeroPutsAllTapsOnOneElement) {
    ConvolutionCase a = ConvolutionCase::of(2, 5, 5).outputs(2).kernel(3).dilation(0);
    expect_deconvolution(plain, a);
    a.dilation_w = 1;
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, AStrideWiderThanTheKernelLeavesTheBiasBetween) {
    ConvolutionCase a = ConvolutionCase::of(2, 3, 20).outputs(2).kernel(2).stride(5).with_bias();
    expect_deconvolution(plain, a);
}

TEST(DeconvolutionFloatFallback, NegativePaddingCutsNothing) {
    ConvolutionCase a = ConvolutionCase::of(2, 4, 4).outputs(2).kernel(3).pad(-233);
    const Data data(a);
    const Mat top = convolved(plain, a, data);
    EXPECT_EQ(chw(2, 6, 6), top.shape);
}

TEST(DeconvolutionFloatFallback, ACutThatLeavesNothingGivesMinusHundred) {
    ConvolutionCase a = ConvolutionCase::of(1, 4, 4).kernel(3).pad(3);
    const Data data(a);
    for (const char* name : {plain, grouped}) {
        Mat top;
        EXPECT_EQ(
            -100,
            load_convolution(name, a, data)->forward(data.bottom(a), top, get_default_option()));
    }
}

TEST(DeconvolutionFloatFallback, ATopOfTheRightShapeInThePlainHeapIsWrittenInPlace) {
    ConvolutionCase a = ConvolutionCase::of(2, 4, 4).outputs(2).kernel(3);
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
    ConvolutionCase a = ConvolutionCase::of(1, 1, 1).stride(40000);
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
    ConvolutionCase a = ConvolutionCase::of(2, 5, 5).outputs(2).kernel(3);
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
    expect_plain_floats_only(plain, "deconvolution_float_fallback");
    expect_plain_floats_only(grouped, "deconvolutiondepthwise_float_fallback");
}

TEST(DeconvolutionFloatFallback, NumbersThatMakeNoConvolutionAreRefusedWithoutAFault) {
    for (const char* name : {plain, grouped}) {
        const ConvolutionCase good = ConvolutionCase::of(2, 5, 5).outputs(2).kernel(3);
        expect_refused_numbers(name, good, UNUSABLE_NUMBERS);
        expect_refused_numbers(name, good, {{0, -2}, {5, INT_MAX}, {6, INT_MAX}});
    }
}

TEST(DeconvolutionFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    for (const char* name : {plain, grouped})
        expect_arrays_are_needed(name, ConvolutionCase::of(1, 3, 3));
}

TEST(DeconvolutionFloatFallback, ItsNameIsItsClassName) {
    for (const char* name : {plain, grouped}) EXPECT_EQ(name, make_operator(name)->name());
}

TEST(DeconvolutionDepthwiseFloatFallback, ADepthwiseOutputIsOneFloatChainOverItsChannel) {
    unsigned int seed = 1;
    for (const int c : {1, 3, 4, 5, 8})
        for (const int kernel : {1, 2, 3, 4, 5})
            for (const int stride : {1, 2, 3})
                for (const int dilation : {1, 2})
                    for (const bool bias : {false, true}) {
                        ConvolutionCase a = ConvolutionCase::of(c, 3 + static_cast<int>(seed % 4),
                                                                1 + static_cast<int>(seed % 43))
                                                .outputs(c)
                                                .kernel(kernel)
                                                .stride(stride)
                                                .dilation(dilation)
                                                .pad(static_cast<int>(seed % 2))
                                                .groups(c)
                                                .with_bias(bias)
                                                .seeded(seed);
                        expect_deconvolution(grouped, a);
                        ++seed;
                    }
}

TEST(DeconvolutionDepthwiseFloatFallback, AGroupSeesItsOwnChannelsOnly) {
    unsigned int seed = 900;
    for (const int group : {1, 2, 3})
        for (const int inputs : {1, 2, 3})
            for (const int outputs : {1, 2, 5}) {
                ConvolutionCase a = ConvolutionCase::of(group * inputs, 4, 19)
                                        .outputs(group * outputs)
                                        .kernel(4)
                                        .stride(2)
                                        .pad(1)
                                        .groups(group)
                                        .with_bias(seed % 2 == 0)
                                        .seeded(seed);
                expect_deconvolution(grouped, a);
                ++seed;
            }
}

TEST(DeconvolutionDepthwiseFloatFallback, ChannelsThatDoNotDivideRaiseTheAssertion) {
    expect_groups_must_divide(grouped, "deconvolutiondepthwise_float_fallback");
}

}  // namespace
