#include <gtest/gtest.h>

#include "support/convolution_contract.h"
#include "support/convolutions.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;
using Data = ConvolutionArrays;

constexpr const char* grouped = "ConvolutionDepthwise_Float_Fallback";

void expect_grouped_convolution(const ConvolutionCase& a) {
    SCOPED_TRACE(a.text());
    const Data data(a);
    auto op = load_convolution(grouped, a, data);
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    {
        Mat top;
        ASSERT_EQ(0, op->forward(data.bottom(a), top, opt));
        const int extent_w = (a.kernel_w - 1) * a.dilation_w + 1;
        const int extent_h = (a.kernel_h - 1) * a.dilation_h + 1;
        const int outw = (a.w + 2 * a.pad_w - extent_w) / a.stride_w + 1;
        const int outh = (a.h + 2 * a.pad_h - extent_h) / a.stride_h + 1;
        expect_same_bits(
            reference_convolution(a, data, a.pad_h, a.pad_h, a.pad_w, a.pad_w, outw, outh), top);
    }
    EXPECT_EQ(0, blobs.alive);
    EXPECT_EQ(0, workspace.alive);
}

TEST(ConvolutionDepthwiseFloatFallback, ADepthwiseOutputIsOneFloatChainOverItsChannel) {
    unsigned int seed = 400;
    for (const int c : {1, 3, 4, 5, 8})
        for (const int kernel : {1, 2, 3, 5})
            for (const int stride : {1, 2, 3})
                for (const int dilation : {1, 2})
                    for (const bool bias : {false, true}) {
                        ConvolutionCase a = ConvolutionCase::of(c, 9 + static_cast<int>(seed % 3),
                                                                9 + static_cast<int>(seed % 37))
                                                .outputs(c)
                                                .kernel(kernel)
                                                .stride(stride)
                                                .dilation(dilation)
                                                .pad(static_cast<int>(seed % 2))
                                                .groups(c)
                                                .with_bias(bias)
                                                .seeded(seed);
                        expect_grouped_convolution(a);
                        ++seed;
                    }
}

TEST(ConvolutionDepthwiseFloatFallback, AGroupSeesItsOwnChannelsOnly) {
    unsigned int seed = 800;
    for (const int group : {1, 2, 3, 4})
        for (const int inputs : {1, 2, 3})
            for (const int outputs : {1, 2, 5})
                for (const bool bias : {false, true}) {
                    ConvolutionCase a = ConvolutionCase::of(group * inputs, 7, 19)
                                            .outputs(group * outputs)
                                            .kernel(3)
                                            .pad(1)
                                            .groups(group)
                                            .with_bias(bias)
                                            .seeded(seed);
                    expect_grouped_convolution(a);
                    ++seed;
                }
}

TEST(ConvolutionDepthwiseFloatFallback, AsManyGroupsAsInputsButMoreOutputsIsGrouped) {
    ConvolutionCase a = ConvolutionCase::of(3, 6, 6).outputs(6).kernel(3).groups(3).with_bias();
    expect_grouped_convolution(a);
}

TEST(ConvolutionDepthwiseFloatFallback, ItsSizeFollowsTheKernelWhereThePlainOneDoesNot) {
    ConvolutionCase a = ConvolutionCase::of(1, 7, 7).kernel(3).stride(2).pad(1);
    const Data data(a);
    Mat top;
    auto op = load_convolution(grouped, a, data);
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    EXPECT_EQ(chw(1, 4, 4), top.shape);
    auto other = load_convolution("Convolution_Float_Fallback", a, data);
    Mat other_top;
    ASSERT_EQ(0, other->forward(data.bottom(a), other_top, get_default_option()));
    EXPECT_EQ(chw(1, 3, 3), other_top.shape);
}

TEST(ConvolutionDepthwiseFloatFallback, AOneByOneTopIsComputed) {
    ConvolutionCase a = ConvolutionCase::of(5, 7, 7).depthwise().kernel(7).with_bias();
    expect_grouped_convolution(a);
}

TEST(ConvolutionDepthwiseFloatFallback, ABottomNarrowerThanTheKernelByLessThanAStrideGivesAColumn) {
    // (2 - 3) / 2 + 1 = 1: the window runs on into the next row, and behind the last into zeros.
    ConvolutionCase a = ConvolutionCase::of(2, 3, 2).depthwise().kernel(3).stride(2);
    expect_grouped_convolution(a);
    a.kernel_h = 4;
    expect_grouped_convolution(a);
}

TEST(ConvolutionDepthwiseFloatFallback, ABottomSmallerThanTheKernelIsRefused) {
    ConvolutionCase a = ConvolutionCase::of(2, 2, 2).depthwise().kernel(4);
    const Data data(a);
    auto op = load_convolution(grouped, a, data);
    Mat top;
    EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
}

TEST(ConvolutionDepthwiseFloatFallback, ThePaddingThatKeepsTheSizePutsTheLargerHalfBelowAndRight) {
    // wpad = 5 + (10 - 1) / 2 * 2 - 10 = 3, hpad = 2 + 6 / 2 * 2 - 7 = 1.
    ConvolutionCase a =
        ConvolutionCase::of(3, 7, 10).depthwise().kernel(3, 2).stride(2).dilation(2, 1).pad(-233);
    SCOPED_TRACE(a.text());
    const Data data(a);
    const Mat top = convolved(grouped, a, data);
    expect_same_bits(reference_convolution(a, data, 0, 1, 1, 2, 5, 4), top);
}

TEST(ConvolutionDepthwiseFloatFallback, ChannelsBeyondTheWeightsMeetZeros) {
    ConvolutionCase a = ConvolutionCase::of(2, 17, 17).outputs(3).kernel(3).groups(1);
    Data data(a);
    auto op = load_convolution(grouped, a, data);
    ConvolutionCase more = a;
    more.c = 5;
    data.input = random_floats(5 * 17 * 17, 6);
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(more), top, get_default_option()));
    expect_same_bits(reference_convolution(more, data, 0, 0, 0, 0, 15, 15), top);
}

TEST(ConvolutionDepthwiseFloatFallback, ChannelsThatDoNotDivideRaiseTheAssertion) {
    expect_groups_must_divide(grouped, "convolutiondepthwise_float_fallback");
}

TEST(ConvolutionDepthwiseFloatFallback, ATensorOfAnotherLayoutRaisesTheAssertion) {
    expect_plain_floats_only(grouped, "convolutiondepthwise_float_fallback");
}

TEST(ConvolutionDepthwiseFloatFallback, NumbersThatMakeNoConvolutionAreRefusedWithoutAFault) {
    const ConvolutionCase good = ConvolutionCase::of(2, 5, 5).depthwise().kernel(3);
    expect_refused_numbers(grouped, good, UNUSABLE_NUMBERS);
    // A kernel that dilation makes larger than the bottom.
    expect_refused_numbers(grouped, good, {{3, 3}, {4, 4}});
}

TEST(ConvolutionDepthwiseFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    expect_arrays_are_needed(grouped, ConvolutionCase::of(2, 3, 3).depthwise());
}

TEST(ConvolutionDepthwiseFloatFallback, AllocatorsThatFailGiveMinusHundredAndNoLeak) {
    expect_failing_allocators(grouped, ConvolutionCase::of(2, 5, 5).depthwise().kernel(3).pad(1));
}

TEST(ConvolutionDepthwiseFloatFallback, ItsNameIsItsClassName) {
    EXPECT_EQ(grouped, make_operator(grouped)->name());
}

}  // namespace
