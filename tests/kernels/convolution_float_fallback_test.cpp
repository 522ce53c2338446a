#include <gtest/gtest.h>

#include <climits>

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
                        ConvolutionCase a;
                        a.c = c;
                        a.h = 7 + static_cast<int>(seed % 3);
                        a.w = 9 + static_cast<int>(seed % 13);
                        a.num_output = 1 + static_cast<int>(seed % 5);
                        a.kernel_w = a.kernel_h = kernel;
                        a.stride_w = a.stride_h = stride;
                        a.dilation_w = a.dilation_h = dilation;
                        a.pad_w = a.pad_h = (kernel - 1) * dilation / 2;
                        a.bias = bias;
                        a.seed = seed++;
                        expect_plain_convolution(a);
                    }
}

TEST(ConvolutionFloatFallback, DirectionsAreIndependent) {
    ConvolutionCase a;
    a.c = 3;
    a.h = 11;
    a.w = 37;
    a.num_output = 4;
    a.kernel_w = 5;
    a.kernel_h = 2;
    a.stride_w = 2;
    a.stride_h = 3;
    a.dilation_w = 1;
    a.dilation_h = 2;
    a.pad_w = 2;
    a.pad_h = 0;
    a.bias = true;
    expect_plain_convolution(a);
    a.pad_w = 0;
    a.pad_h = 1;
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, AOneByOneBottomGivesAOneByOneTop) {
    ConvolutionCase a;
    a.c = 8;
    a.num_output = 3;
    a.bias = true;
    expect_plain_convolution(a);
    a.kernel_w = a.kernel_h = 3;
    a.pad_w = a.pad_h = 1;
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, AKernelOfMoreTapsThanTheStackTableHoldsIsComputedToo) {
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 19;
    a.num_output = 2;
    a.kernel_w = 13;
    a.kernel_h = 11;
    a.pad_w = 6;
    a.pad_h = 5;
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, WithoutPaddingNothingIsCopied) {
    ConvolutionCase a;
    a.c = 4;
    a.h = a.w = 6;
    a.num_output = 4;
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
        ConvolutionCase a;
        a.c = 2;
        a.h = 9;
        a.w = 7;
        a.num_output = 2;
        a.kernel_w = a.kernel_h = 3;
        a.stride_w = a.stride_h = 2;
        a.pad_w = a.pad_h = pad;
        SCOPED_TRACE(a.text());
        const Data data(a);
        auto op = load_convolution(plain, a, data);
        Mat top;
        ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
        EXPECT_EQ(chw(2, 4, 3), top.shape);
        expect_plain_convolution(a);
    }
}

TEST(ConvolutionFloatFallback, WithoutABorderWindowsRunOnIntoTheNextRowAndTheNextChannel) {
    ConvolutionCase a;
    a.c = 2;
    a.h = 2;
    a.w = 3;
    a.num_output = 1;
    a.kernel_w = 3;
    a.kernel_h = 1;
    Data data(a);
    data.input = {1, 2, 3, 4, 5, 6, 10, 20, 30, 40, 50, 60};
    data.weights = {1, 1, 1, 0, 0, 0};
    auto op = load_convolution(plain, a, data);
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    // The last windows of a row see the next row, the last of the channel see the second channel.
    EXPECT_EQ((std::vector<float>{6, 9, 12, 15, 21, 36}), values_of(top));
}

TEST(ConvolutionFloatFallback, WhatLiesBehindTheEndOfTheBottomCountsAsZero) {
    ConvolutionCase a;
    a.h = 1;
    a.w = 4;
    a.num_output = 1;
    a.kernel_w = 3;
    a.kernel_h = 1;
    Data data(a);
    data.input = {1, 2, 3, 4};
    data.weights = {1, 10, 100};
    auto op = load_convolution(plain, a, data);
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    EXPECT_EQ((std::vector<float>{321, 432, 43, 4}), values_of(top));

    unsigned int seed = 77;
    for (const int kernel : {2, 4, 7}) {
        ConvolutionCase wide;
        wide.c = 3;
        wide.h = 5;
        wide.w = 18;
        wide.num_output = 2;
        wide.kernel_w = wide.kernel_h = kernel;
        wide.dilation_w = wide.dilation_h = 3;
        wide.seed = seed++;
        expect_plain_convolution(wide);
    }
}

TEST(ConvolutionFloatFallback, ThePaddingThatKeepsTheSizePutsTheLargerHalfBelowAndRight) {
    // wpad = 4 + (9 - 1) / 2 * 2 - 9 = 3, hpad = 3 + (8 - 1) / 2 * 2 - 8 = 1.
    ConvolutionCase a;
    a.c = 3;
    a.h = 8;
    a.w = 9;
    a.num_output = 2;
    a.kernel_w = 4;
    a.kernel_h = 3;
    a.stride_w = a.stride_h = 2;
    a.pad_w = a.pad_h = -233;
    SCOPED_TRACE(a.text());
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    expect_same_bits(reference_convolution(a, data, 0, 1, 1, 2, 4, 4), top);
}

TEST(ConvolutionFloatFallback, ThePaddingThatKeepsTheSizeMakesABorderInOneDirectionAlone) {
    // wpad = 1 + 7 / 1 * 1 - 8 = 0, hpad = 2.
    ConvolutionCase a;
    a.c = 2;
    a.h = 5;
    a.w = 8;
    a.num_output = 2;
    a.kernel_w = 1;
    a.kernel_h = 3;
    a.pad_w = a.pad_h = -233;
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
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 5;
    a.num_output = 2;
    a.kernel_w = a.kernel_h = 3;
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
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 5;
    a.num_output = 2;
    a.kernel_w = a.kernel_h = 3;
    a.pad_w = 1;
    a.pad_h = -233;
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    Mat top;
    EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
}

TEST(ConvolutionFloatFallback, WithoutABiasNoneIsAskedFor) {
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 3;
    a.num_output = 2;
    const Data data(a);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), nullptr);
    auto op = make_operator(plain);
    EXPECT_EQ(0, op->load(a.params(), WithoutArray(arrays, 1, 0), {nullptr, 0, 0}));
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    expect_same_bits(reference_convolution(a, data, 0, 0, 0, 0, 3, 3), top);
}

TEST(ConvolutionFloatFallback, AGroupIsNotApplied) {
    ConvolutionCase a;
    a.c = 4;
    a.h = a.w = 5;
    a.num_output = 4;
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
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 11;
    a.num_output = 2;
    a.kernel_w = a.kernel_h = 3;
    a.dilation_w = a.dilation_h = 2;
    a.stride_w = a.stride_h = 2;
    a.pad_w = a.pad_h = 2;
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
    ConvolutionCase a;
    a.c = 3;
    a.h = 4;
    a.w = 20;
    a.num_output = 2;
    a.kernel_w = a.kernel_h = 3;
    a.pad_w = a.pad_h = 1;
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
    ConvolutionCase a;
    a.w = 4;
    const Data data(a);
    auto op = load_convolution(plain, a, data);
    for (const TensorShape& shape :
         {TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), TensorShape(TensorShape::CHW, 1, 1, 4, 2)}) {
        AssertRecorder assertions;
        Mat top;
        EXPECT_FALSE(op->check_forward(shape));
        EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ("convolution_float_fallback", assertions.last().source);
    }
}

TEST(ConvolutionFloatFallback, NumbersThatMakeNoConvolutionAreRefusedWithoutAFault) {
    ConvolutionCase good;
    good.c = 2;
    good.h = good.w = 5;
    good.num_output = 2;
    good.kernel_w = good.kernel_h = 3;
    good.bias = true;
    const Data data(good);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), data.bias.data());
    const struct {
        int id;
        int value;
    } changes[] = {{1, 0},       {2, 0},       {1, -3},      {3, -1},      {4, -2}, {5, 0},
                   {6, 0},       {5, -1},      {3, 1 << 30}, {4, INT_MAX}, {5, 6},  {6, INT_MAX},
                   {7, INT_MAX}, {8, INT_MAX}, {1, 1 << 20}, {10, 4}};
    for (const auto& change : changes) {
        SCOPED_TRACE(testing::Message() << "id " << change.id << " = " << change.value);
        ParamDict pd = good.params();
        pd.set(change.id, change.value);
        auto op = make_operator(plain);
        ASSERT_EQ(0, op->load(pd, arrays, {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(data.bottom(good), top, get_default_option()));
    }
    auto op = load_convolution(plain, good, data);
    Mat top;
    EXPECT_EQ(-100, op->forward(Mat(chw(0, 0, 0), nullptr), top, get_default_option()));
    EXPECT_EQ(-100, op->forward(Mat(chw(2, -5, -5), nullptr), top, get_default_option()));
}

TEST(ConvolutionFloatFallback, ADilationOfZeroPutsAllTapsOnOneElement) {
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 6;
    a.num_output = 2;
    a.kernel_w = a.kernel_h = 3;
    a.dilation_w = a.dilation_h = 0;
    expect_plain_convolution(a);
}

TEST(ConvolutionFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 3;
    a.num_output = 2;
    a.bias = true;
    const Data data(a);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), data.bias.data());
    for (const int type : {0, 1}) {
        auto op = make_operator(plain);
        EXPECT_EQ(-100, op->load(a.params(), WithoutArray(arrays, type, 0), {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
    }
    auto op = make_operator(plain);
    ParamDict pd = a.params();
    pd.set(10, 0);
    EXPECT_EQ(-100, op->load(pd, arrays, {nullptr, 0, 0}));
}

TEST(ConvolutionFloatFallback, AllocatorsThatFailGiveMinusHundredAndNoLeak) {
    ConvolutionCase a;
    a.c = 2;
    a.h = a.w = 5;
    a.num_output = 2;
    a.kernel_w = a.kernel_h = 3;
    for (const int pad : {1, -233}) {
        a.pad_w = a.pad_h = pad;
        const Data data(a);
        auto op = load_convolution(plain, a, data);
        for (const bool blob_fails : {true, false}) {
            PoisoningAllocator blobs, workspace;
            blobs.fail = blob_fails;
            workspace.fail = !blob_fails;
            Option opt;
            opt.blob_allocator = &blobs;
            opt.workspace_allocator = &workspace;
            {
                Mat top;
                EXPECT_EQ(-100, op->forward(data.bottom(a), top, opt));
            }
            EXPECT_EQ(0, blobs.alive);
            EXPECT_EQ(0, workspace.alive);
        }
    }
}

TEST(ConvolutionFloatFallback, ItsNameIsItsClassName) {
    EXPECT_EQ(plain, make_operator(plain)->name());
}

}  // namespace
