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

constexpr const char* plain = "Convolution_Float_Fallback";

// Runs a case whose border is what `pad_w` and `pad_h` say.
void expect_plain_convolution(const ConvolutionCase& a) {
    SCOPED_TRACE(a.text());
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    {
        Mat top;
        ASSERT_EQ(0, op->forward(data.bottom(a), top, opt));
        EXPECT_EQ(&blobs, top.allocator);
        expect_same_bits(reference_convolution(a, data, a.pad_h, a.pad_h, a.pad_w, a.pad_w,
                                               a.w / a.stride_w, a.h / a.stride_h),
                         top);
    }
    EXPECT_EQ(0, blobs.alive);
    EXPECT_EQ(0, workspace.alive);
}

TEST(ConvolutionFloatFallback, EveryOutputIsOneFloatChainInTheDocumentedOrder) {
    unsigned int seed = 10;
    for (const int c : {1, 3, 4, 5, 8})
        for (const int kernel : {1, 2, 3, 5})
            for (const int stride : {1, 2, 3})
                for (const int dilation : {1, 2})
                    for (const bool bias : {false, true}) {
                        ConvolutionCase a = ConvolutionCase::of(c, 7 + static_cast<int>(seed % 3),
                                                                9 + static_cast<int>(seed % 13))
                                                .outputs(1 + static_cast<int>(seed % 5))
                                                .kernel(kernel)
                                                .stride(stride)
                                                .dilation(dilation)
                                                .pad((kernel - 1) * dilation / 2)
                                                .with_bias(bias)
                                                .seeded(seed);
                        expect_plain_convolution(a);
                        ++seed;
                    }
}

TEST(ConvolutionFloatFallback, DirectionsAreIndependent) {
    ConvolutionCase a = ConvolutionCase::of(3, 11, 37)
                            .outputs(4)
                            .kernel(5, 2)
                            .stride(2, 3)
                            .dilation(1, 2)
                            .pad(2, 0)
                            .with_bias();
    expect_plain_convolution(a);
    a.pad_w = 0;
    a.pad_h = 1;
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, AOneByOneBottomGivesAOneByOneTop) {
    ConvolutionCase a = ConvolutionCase::of(8, 1, 1).outputs(3).with_bias();
    expect_plain_convolution(a);
    a.kernel_w = a.kernel_h = 3;
    a.pad(1);
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, AKernelOfMoreTapsThanTheStackTableHoldsIsComputedToo) {
    ConvolutionCase a = ConvolutionCase::of(2, 19, 19).outputs(2).kernel(13, 11).pad(6, 5);
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, WithoutPaddingNothingIsCopied) {
    ConvolutionCase a = ConvolutionCase::of(4, 6, 6).outputs(4);
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    PoisoningAllocator workspace;
    Option opt;
    opt.workspace_allocator = &workspace;
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, opt));
    EXPECT_EQ(0, workspace.calls);
}

TEST(ConvolutionFloatFallback, TheSizeIsTheBottomsDividedByTheStrideWhateverThePadding) {
    for (const int pad : {0, 1, 4}) {
        ConvolutionCase a = ConvolutionCase::of(2, 9, 7).outputs(2).kernel(3).stride(2).pad(pad);
        SCOPED_TRACE(a.text());
        const Data data(a);
        const Mat top = convolved(plain, a, data);
        EXPECT_EQ(chw(2, 4, 3), top.shape);
        expect_plain_convolution(a);
    }
}

TEST(ConvolutionFloatFallback, WithoutABorderWindowsRunOnIntoTheNextRowAndTheNextChannel) {
    ConvolutionCase a = ConvolutionCase::of(2, 2, 3).outputs(1).kernel(3, 1);
    Data data(a);
    data.input = {1, 2, 3, 4, 5, 6, 10, 20, 30, 40, 50, 60};
    data.weights = {1, 1, 1, 0, 0, 0};
    const Mat top = convolved(plain, a, data);
    // The last windows of a row see the next row, the last of the channel see the second channel.
    EXPECT_EQ((std::vector<float>{6, 9, 12, 15, 21, 36}), values_of(top));
}

TEST(ConvolutionFloatFallback, WhatLiesBehindTheEndOfTheBottomCountsAsZero) {
    ConvolutionCase a = ConvolutionCase::of(1, 1, 4).outputs(1).kernel(3, 1);
    Data data(a);
    data.input = {1, 2, 3, 4};
    data.weights = {1, 10, 100};
    const Mat top = convolved(plain, a, data);
    EXPECT_EQ((std::vector<float>{321, 432, 43, 4}), values_of(top));

    unsigned int seed = 77;
    for (const int kernel : {2, 4, 7}) {
        ConvolutionCase wide =
            ConvolutionCase::of(3, 5, 18).outputs(2).kernel(kernel).dilation(3).seeded(seed);
        expect_plain_convolution(wide);
        ++seed;
    }
}

TEST(ConvolutionFloatFallback, ThePaddingThatKeepsTheSizePutsTheLargerHalfBelowAndRight) {
    // wpad = 4 + (9 - 1) / 2 * 2 - 9 = 3, hpad = 3 + (8 - 1) / 2 * 2 - 8 = 1.
    ConvolutionCase a = ConvolutionCase::of(3, 8, 9).outputs(2).kernel(4, 3).stride(2).pad(-233);
    SCOPED_TRACE(a.text());
    const Data data(a);
    const Mat top = convolved(plain, a, data);
    expect_same_bits(reference_convolution(a, data, 0, 1, 1, 2, 4, 4), top);
}

TEST(ConvolutionFloatFallback, ThePaddingThatKeepsTheSizeMakesABorderInOneDirectionAlone) {
    // wpad = 1 + 7 / 1 * 1 - 8 = 0, hpad = 2.
    ConvolutionCase a = ConvolutionCase::of(2, 5, 8).outputs(2).kernel(1, 3).pad(-233);
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    PoisoningAllocator workspace;
    Option opt;
    opt.workspace_allocator = &workspace;
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, opt));
    EXPECT_EQ(1, workspace.calls);
    expect_same_bits(reference_convolution(a, data, 1, 1, 0, 0, 8, 5), top);
}

TEST(ConvolutionFloatFallback, OtherNegativePaddingMeansNoBorder) {
    ConvolutionCase a = ConvolutionCase::of(2, 5, 5).outputs(2).kernel(3);
    for (const int pad_h : {0, -1, -233}) {
        a.pad_w = -5;
        a.pad_h = pad_h;
        SCOPED_TRACE(a.text());
        const Data data(a);
        auto op = load_convolution(plain, a, data);
        PoisoningAllocator workspace;
        Option opt;
        opt.workspace_allocator = &workspace;
        Mat top;
        ASSERT_EQ(0, op->forward(data.bottom(a), top, opt));
        EXPECT_EQ(0, workspace.calls);
        expect_same_bits(reference_convolution(a, data, 0, 0, 0, 0, 5, 5), top);
    }
}

TEST(ConvolutionFloatFallback, PaddingInOneDirectionAndANegativeOneInTheOtherGivesNoTensor) {
    ConvolutionCase a = ConvolutionCase::of(2, 5, 5).outputs(2).kernel(3).pad(1, -233);
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    Mat top;
    EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
}

TEST(ConvolutionFloatFallback, WithoutABiasNoneIsAskedFor) {
    ConvolutionCase a = ConvolutionCase::of(2, 3, 3).outputs(2);
    const Data data(a);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), nullptr);
    auto op = make_operator(plain);
    EXPECT_EQ(0, op->load(a.params(), WithoutArray(arrays, 1, 0), {nullptr, 0, 0}));
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    expect_same_bits(reference_convolution(a, data, 0, 0, 0, 0, 3, 3), top);
}

TEST(ConvolutionFloatFallback, AGroupIsNotApplied) {
    ConvolutionCase a = ConvolutionCase::of(4, 5, 5).outputs(4);
    const Data data(a);
    ParamDict pd = a.params();
    pd.set(11, 2);
    auto op = make_operator(plain);
    ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(data.weights.data(), nullptr),
                          {nullptr, 0, 0}));
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    expect_same_bits(reference_convolution(a, data, 0, 0, 0, 0, 5, 5), top);
}

TEST(ConvolutionFloatFallback, HeightsDefaultToWidths) {
    ConvolutionCase a =
        ConvolutionCase::of(2, 11, 11).outputs(2).kernel(3).stride(2).dilation(2).pad(2);
    const Data data(a);
    ParamDict pd;
    pd.set(0, 2);
    pd.set(1, 3);
    pd.set(3, 2);
    pd.set(5, 2);
    pd.set(7, 2);
    pd.set(10, static_cast<int>(a.weight_count()));
    auto op = make_operator(plain);
    ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(data.weights.data(), nullptr),
                          {nullptr, 0, 0}));
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    expect_same_bits(reference_convolution(a, data, 2, 2, 2, 2, 5, 5), top);
}

TEST(ConvolutionFloatFallback, ChannelsBeyondTheWeightsMeetZeros) {
    ConvolutionCase a = ConvolutionCase::of(3, 4, 20).outputs(2).kernel(3).pad(1);
    Data data(a);
    auto op = load_convolution(plain, a, data);
    ConvolutionCase more = a;
    more.c = 7;
    data.input = random_floats(7 * 4 * 20, 5);
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(more), top, get_default_option()));
    expect_same_bits(reference_convolution(more, data, 1, 1, 1, 1, 20, 4), top);
}

TEST(ConvolutionFloatFallback, TheTopKeepsTheBottomsFractionalBits) {
    ConvolutionCase a;
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    Mat bottom = data.bottom(a);
    bottom.shape.frac_bits = 5;
    Mat top;
    ASSERT_EQ(0, op->forward(bottom, top, get_default_option()));
    EXPECT_EQ(5u, top.shape.frac_bits);
}

TEST(ConvolutionFloatFallback, ATensorOfAnotherLayoutOrElementSizeRaisesTheAssertion) {
    expect_plain_floats_only(plain, "convolution_float_fallback");
}

TEST(ConvolutionFloatFallback, NumbersThatMakeNoConvolutionAreRefusedWithoutAFault) {
    const ConvolutionCase good = ConvolutionCase::of(2, 5, 5).outputs(2).kernel(3).with_bias();
    expect_refused_numbers(plain, good,
                           {{1, 0},
                            {2, 0},
                            {1, -3},
                            {3, -1},
                            {4, -2},
                            {5, 0},
                            {6, 0},
                            {5, -1},
                            {3, 1 << 30},
                            {4, INT_MAX},
                            {5, 6},
                            {6, INT_MAX},
                            {7, INT_MAX},
                            {8, INT_MAX},
                            {1, 1 << 20},
                            {10, 4}});
    auto op = load_convolution(plain, good, Data(good));
    expect_no_forward(*op, Mat(chw(0, 0, 0), nullptr));
    expect_no_forward(*op, Mat(chw(2, -5, -5), nullptr));
}

TEST(ConvolutionFloatFallback, ADilationOfZeroPutsAllTapsOnOneElement) {
    ConvolutionCase a = ConvolutionCase::of(2, 6, 6).outputs(2).kernel(3).dilation(0);
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    expect_arrays_are_needed(plain, ConvolutionCase::of(2, 3, 3).outputs(2));
}

TEST(ConvolutionFloatFallback, AllocatorsThatFailGiveMinusHundredAndNoLeak) {
    for (const int pad : {1, -233})
        expect_failing_allocators(plain,
                                  ConvolutionCase::of(2, 5, 5).outputs(2).kernel(3).pad(pad));
}

TEST(ConvolutionFloatFallback, ItsNameIsItsClassName) {
    EXPECT_EQ(plain, make_operator(plain)->name());
}

}  // namespace
