#include <gtest/gtest.h>

#include <climits>

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
                        ConvolutionCase a;
                        a.c = a.num_output = a.group = c;
                        a.h = 9 + static_cast<int>(seed % 3);
                        a.w = 9 + static_cast<int>(seed % 37);
                        a.kernel_w = a.kernel_h = kernel;
                        a.stride_w = a.stride_h = stride;
                        a.dilation_w = a.dilation_h = dilation;
                        a.pad_w = a.pad_h = static_cast<int>(seed % 2);
                        a.bias = bias;
                        a.seed = seed++;
                        expect_grouped_convolution(a);
                    }
}

TEST(ConvolutionDepthwiseFloatFallback, AGroupSeesItsOwnChannelsOnly) {
    unsigned int seed = 800;
    for (const int group : {1, 2, 3, 4})
        for (const int inputs : {1, 2, 3})
            for (const int outputs : {1, 2, 5})
                for (const bool bias : {false, true}) {
                    ConvolutionCase a;
                    a.group = group;
                    a.c = group * inputs;
                    a.num_output = group * outputs;
                    a.h = 7;
                    a.w = 19;
                    a.kernel_w = a.kernel_h = 3;
                    a.pad_w = a.pad_h = 1;
                    a.bias = bias;
                    a.seed = seed++;
                    expect_grouped_convolution(a);
                }
}

TEST(ConvolutionDepthwiseFloatFallback, AsManyGroupsAsInputsButMoreOutputsIsGrouped) {
    ConvolutionCase a;
    a.c = a.group = 3;
    a.num_output = 6;
    a.h = a.w = 6;
    a.kernel_w = a.kernel_h = 3;
    a.bias = true;
    expect_grouped_convolution(a);
}

TEST(ConvolutionDepthwiseFloatFallback, ItsSizeFollowsTheKernelWhereThePlainOneDoesNot) {
    ConvolutionCase a;
    a.h = a.w = 7;
    a.kernel_w = a.kernel_h = 3;
    a.stride_w = a.stride_h = 2;
    a.pad_w = a.pad_h = 1;
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
    ConvolutionCase a;
    a.c = a.num_output = a.group = 5;
    a.h = a.w = 7;
    a.kernel_w = a.kernel_h = 7;
    a.bias = true;
    expect_grouped_convolution(a);
}

TEST(ConvolutionDepthwiseFloatFallback, ABottomNarrowerThanTheKernelByLessThanAStrideGivesAColumn) {
    // (2 - 3) / 2 + 1 = 1: the window runs on into the next row, and behind the last into zeros.
    ConvolutionCase a;
    a.c = a.num_output = a.group = 2;
    a.h = 3;
    a.w = 2;
    a.kernel_w = a.kernel_h = 3;
    a.stride_w = a.stride_h = 2;
    expect_grouped_convolution(a);
    a.kernel_h = 4;
    expect_grouped_convolution(a);
}

TEST(ConvolutionDepthwiseFloatFallback, ABottomSmallerThanTheKernelIsRefused) {
    ConvolutionCase a;
    a.c = a.num_output = a.group = 2;
    a.h = a.w = 2;
    a.kernel_w = a.kernel_h = 4;
    const Data data(a);
    auto op = load_convolution(grouped, a, data);
    Mat top;
    EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
}

TEST(ConvolutionDepthwiseFloatFallback, ThePaddingThatKeepsTheSizePutsTheLargerHalfBelowAndRight) {
    // wpad = 5 + (10 - 1) / 2 * 2 - 10 = 3, hpad = 2 + 6 / 2 * 2 - 7 = 1.
    ConvolutionCase a;
    a.c = a.num_output = a.group = 3;
    a.h = 7;
    a.w = 10;
    a.kernel_w = 3;
    a.dilation_w = 2;
    a.kernel_h = 2;
    a.stride_w = a.stride_h = 2;
    a.pad_w = a.pad_h = -233;
    SCOPED_TRACE(a.text());
    const Data data(a);
    auto op = load_convolution(grouped, a, data);
    Mat top;
    ASSERT_EQ(0, op->forward(data.bottom(a), top, get_default_option()));
    expect_same_bits(reference_convolution(a, data, 0, 1, 1, 2, 5, 4), top);
}

TEST(ConvolutionDepthwiseFloatFallback, ChannelsBeyondTheWeightsMeetZeros) {
    ConvolutionCase a;
    a.group = 1;
    a.c = 2;
    a.num_output = 3;
    a.h = a.w = 17;
    a.kernel_w = a.kernel_h = 3;
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
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ("convolutiondepthwise_float_fallback", assertions.last().source);
    }
}

TEST(ConvolutionDepthwiseFloatFallback, ATensorOfAnotherLayoutRaisesTheAssertion) {
    ConvolutionCase a;
    const Data data(a);
    auto op = load_convolution(grouped, a, data);
    AssertRecorder assertions;
    Mat top;
    const Mat packed(TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), nullptr);
    EXPECT_EQ(-100, op->forward(packed, top, get_default_option()));
    EXPECT_EQ(-100, op->forward(Mat(TensorShape(TensorShape::CHW, 1, 1, 4, 1), nullptr), top,
                                get_default_option()));
    EXPECT_EQ(2u, assertions.count("false && \"Invalid forward pre-conditions\""));
}

TEST(ConvolutionDepthwiseFloatFallback, NumbersThatMakeNoConvolutionAreRefusedWithoutAFault) {
    ConvolutionCase good;
    good.c = good.num_output = good.group = 2;
    good.h = good.w = 5;
    good.kernel_w = good.kernel_h = 3;
    const Data data(good);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), nullptr);
    const struct {
        int id;
        int value;
    } changes[] = {{0, 0},       {1, 0},       {2, -1},      {3, -1},      {5, 0},
                   {6, -3},      {3, INT_MAX}, {4, 1 << 30}, {7, INT_MAX}, {8, INT_MAX},
                   {1, INT_MAX}, {10, 4},      {3, 3},       {4, 4}};
    for (const auto& change : changes) {
        SCOPED_TRACE(testing::Message() << "id " << change.id << " = " << change.value);
        ParamDict pd = good.params();
        pd.set(change.id, change.value);
        auto op = make_operator(grouped);
        ASSERT_EQ(0, op->load(pd, arrays, {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(data.bottom(good), top, get_default_option()));
    }
}

TEST(ConvolutionDepthwiseFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    ConvolutionCase a;
    a.c = a.num_output = a.group = 2;
    a.h = a.w = 3;
    a.bias = true;
    const Data data(a);
    const ModelBinFromTarnoWeightBias arrays(data.weights.data(), data.bias.data());
    for (const int type : {0, 1}) {
        auto op = make_operator(grouped);
        EXPECT_EQ(-100, op->load(a.params(), WithoutArray(arrays, type, 0), {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(data.bottom(a), top, get_default_option()));
    }
}

TEST(ConvolutionDepthwiseFloatFallback, AllocatorsThatFailGiveMinusHundredAndNoLeak) {
    ConvolutionCase a;
    a.c = a.num_output = a.group = 2;
    a.h = a.w = 5;
    a.kernel_w = a.kernel_h = 3;
    a.pad_w = a.pad_h = 1;
    const Data data(a);
    auto op = load_convolution(grouped, a, data);
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

TEST(ConvolutionDepthwiseFloatFallback, ItsNameIsItsClassName) {
    EXPECT_EQ(grouped, make_operator(grouped)->name());
}

}  // namespace
