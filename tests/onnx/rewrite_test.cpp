// What the converter makes of layers that the engine computes otherwise than ONNX says. Numbers by
// hand; the layers by their kinds.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

MadeModel one_conv(const std::vector<int64_t>& dims, const std::vector<int64_t>& weights,
                   const std::vector<With>& attributes) {
    MadeModel model;
    model.input("x", dims)
        .output("y")
        .random("w", weights, 3)
        .node("Conv", {"x", "w"}, {"y"}, attributes);
    return model;
}

TEST(ConvRewrite, OddSidesWithStrideTwoGetTheRoundedUpSizeOfOnnx) {
    // 7 pixels, kernel 3, padding 1: ONNX has 4 places, the engine's operator 7 / 2.
    const std::vector<float> ones(9, 1.0f);
    MadeModel model;
    model.input("x", {1, 1, 7, 7}).output("y").floats("w", {1, 1, 3, 3}, ones);
    model.node(
        "Conv", {"x", "w"}, {"y"},
        {{"strides", std::vector<int64_t>{2, 2}}, {"pads", std::vector<int64_t>{1, 1, 1, 1}}});
    const Converted result = convert_and_prove(
        model.bytes(), {{"x", picture({1, 1, 7, 7}, std::vector<float>(49, 1.0f))}});
    expect_numbers(result, {4, 6, 6, 4, 6, 9, 9, 6, 6, 9, 9, 6, 4, 6, 6, 4});
    EXPECT_EQ(result.kinds(), (Kinds{"DepthWiseConv2D", "Conv2D"}));
}

TEST(ConvRewrite, AKernelWithoutPaddingLosesItsMargin) {
    // The engine's operator keeps the size; the places beyond are left out.
    std::vector<float> middle(25, 0.0f);
    middle[12] = 1.0f;
    MadeModel model;
    model.input("x", {1, 1, 6, 6}).output("y").floats("w", {1, 1, 5, 5}, middle);
    model.node("Conv", {"x", "w"}, {"y"});
    std::vector<float> ascending(36);
    for (size_t i = 0; i < 36; ++i) ascending[i] = static_cast<float>(i);
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 1, 6, 6}, ascending)}});
    expect_numbers(result, {14, 15, 20, 21});
}

TEST(MaxPoolRewrite, ALeakyReluOfNegativeNumbersBringsThemNearerToZero) {
    // -3 becomes -0.3, then 0.3 and -0.2: below the zeros of the engine's border.
    const std::vector<float> values(9, -3.0f);
    MadeModel model;
    model.input("x", {1, 1, 3, 3})
        .output("y")
        .floats("top", {}, {-1.0f})
        .floats("half", {}, {0.5f});
    model.node("Clip", {"x", "", "top"}, {"c"}).node("LeakyRelu", {"c"}, {"l"}, {{"alpha", 0.1}});
    model.node("Neg", {"l"}, {"n"}).node("Sub", {"n", "half"}, {"q"});
    model.node("MaxPool", {"q"}, {"y"},
               {{"kernel_shape", Ints{3, 3}}, {"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 1, 3, 3}, values)}});
    expect_proof(result);
    expect_numbers(result, Numbers(4, -0.2), 1e-5);
}

struct ConvShape {
    const char* name;
    std::vector<int64_t> dims;
    std::vector<int64_t> weights;
    std::vector<With> attributes;
    Kinds kinds;
};

void PrintTo(const ConvShape& shape, std::ostream* out) {
    *out << shape.name;
}

class ConvKinds : public testing::TestWithParam<ConvShape> {};

const ConvShape CONV_SHAPES[] = {
    {"even_3x3_stride_2",
     {1, 3, 8, 8},
     {4, 3, 3, 3},
     {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}},
     {"Conv2D"}},
    {"valid_3x3", {1, 3, 8, 8}, {4, 3, 3, 3}, {}, {"Conv2D"}},
    {"valid_3x3_rows_only", {1, 3, 8, 8}, {4, 3, 3, 3}, {{"pads", Ints{0, 1, 0, 1}}}, {"Conv2D"}},
    {"padding_2_for_3x3",
     {1, 2, 6, 6},
     {2, 2, 3, 3},
     {{"pads", Ints{2, 2, 2, 2}}},
     {"DepthWiseConv2D", "Conv2D"}},
    {"same_5x5", {1, 2, 6, 6}, {2, 2, 5, 5}, {{"pads", Ints{2, 2, 2, 2}}}, {"Conv2D"}},
    {"dilated_2",
     {1, 2, 9, 9},
     {2, 2, 3, 3},
     {{"dilations", Ints{2, 2}}, {"pads", Ints{2, 2, 2, 2}}},
     {"Conv2D"}},
    {"uneven_padding",
     {1, 2, 8, 8},
     {2, 2, 3, 3},
     {{"strides", Ints{2, 2}}, {"pads", Ints{0, 0, 1, 1}}},
     {"DepthWiseConv2D", "Conv2D"}},
    {"auto_pad_same_upper",
     {1, 2, 8, 8},
     {2, 2, 2, 2},
     {{"auto_pad", "SAME_UPPER"}},
     {"DepthWiseConv2D", "Conv2D", "DepthWiseConv2D"}},
    {"auto_pad_same_lower_odd",
     {1, 2, 7, 9},
     {2, 2, 4, 4},
     {{"auto_pad", "SAME_LOWER"}, {"strides", Ints{2, 2}}},
     {"DepthWiseConv2D", "Conv2D"}},
    {"auto_pad_valid", {1, 2, 8, 8}, {2, 2, 1, 1}, {{"auto_pad", "VALID"}}, {"Conv2D"}},
    {"padded_1x1",
     {1, 2, 4, 4},
     {2, 2, 1, 1},
     {{"pads", Ints{1, 1, 1, 1}}},
     {"DepthWiseConv2D", "Conv2D"}},
    {"odd_1x1_stride_2",
     {1, 2, 5, 7},
     {2, 2, 1, 1},
     {{"strides", Ints{2, 2}}},
     {"DepthWiseConv2D", "Conv2D"}},
    {"even_1x1_stride_2", {1, 2, 4, 6}, {2, 2, 1, 1}, {{"strides", Ints{2, 2}}}, {"Conv2D"}},
    {"stride_3", {1, 2, 10, 10}, {2, 2, 3, 3}, {{"strides", Ints{3, 3}}}, {"Conv2D"}},
    {"strides_2_and_1",
     {1, 2, 8, 7},
     {2, 2, 3, 3},
     {{"strides", Ints{2, 1}}, {"pads", Ints{1, 1, 1, 1}}},
     {"Conv2D"}},
    {"depthwise",
     {1, 4, 7, 7},
     {4, 1, 3, 3},
     {{"group", 4}, {"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}},
     {"DepthWiseConv2D"}},
    {"depthwise_multiplier_3", {1, 2, 5, 5}, {6, 1, 3, 3}, {{"group", 2}}, {"DepthWiseConv2D"}},
    {"depthwise_uneven",
     {1, 4, 8, 8},
     {4, 1, 3, 3},
     {{"group", 4}, {"strides", Ints{2, 2}}, {"pads", Ints{0, 0, 1, 1}}},
     {"DepthWiseConv2D", "DepthWiseConv2D"}},
    {"two_groups_are_spread_out",
     {1, 4, 6, 6},
     {6, 2, 3, 3},
     {{"group", 2}, {"pads", Ints{1, 1, 1, 1}}},
     {"Conv2D"}},
    {"one_dimension",
     {1, 3, 12},
     {4, 3, 3},
     {{"pads", Ints{1, 1}}, {"strides", Ints{2}}},
     {"Conv2D"}},
    {"one_dimension_dilated",
     {1, 3, 11},
     {4, 3, 3},
     {{"dilations", Ints{2}}},
     {"Conv2D", "DepthWiseConv2D"}},
    {"kernel_of_the_whole_picture", {1, 2, 5, 4}, {3, 2, 5, 4}, {}, {"Conv2D", "DepthWiseConv2D"}},
};

TEST_P(ConvKinds, GiveWhatOnnxSays) {
    const ConvShape& shape = GetParam();
    MadeModel model = one_conv(shape.dims, shape.weights, shape.attributes);
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), shape.kinds);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ConvKinds, testing::ValuesIn(CONV_SHAPES),
                         [](const auto& info) { return std::string(info.param.name); });

struct TransposedShape {
    const char* name;
    std::vector<int64_t> dims;
    std::vector<int64_t> weights;
    std::vector<With> attributes;
    Kinds kinds;
};

void PrintTo(const TransposedShape& shape, std::ostream* out) {
    *out << shape.name;
}

class TransposedKinds : public testing::TestWithParam<TransposedShape> {};

const TransposedShape TRANSPOSED_SHAPES[] = {
    {"kernel_4_stride_2",
     {1, 3, 5, 5},
     {3, 2, 4, 4},
     {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}},
     {"Conv2DTranspose"}},
    {"kernel_2_stride_2",
     {1, 3, 5, 5},
     {3, 2, 2, 2},
     {{"strides", Ints{2, 2}}},
     {"Conv2DTranspose"}},
    {"kernel_3_stride_2_one_more",
     {1, 3, 5, 5},
     {3, 2, 3, 3},
     {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}, {"output_padding", Ints{1, 1}}},
     {"Conv2DTranspose"}},
    {"kernel_3_stride_1",
     {1, 3, 5, 5},
     {3, 2, 3, 3},
     {{"pads", Ints{1, 1, 1, 1}}},
     {"Conv2DTranspose"}},
    {"kernel_3_stride_2_odd",
     {1, 3, 5, 5},
     {3, 2, 3, 3},
     {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}},
     {"DepthWiseConv2DTranspose", "DepthWiseConv2D", "Conv2D"}},
    {"kernel_5_stride_2",
     {1, 3, 4, 4},
     {3, 2, 5, 5},
     {{"strides", Ints{2, 2}}, {"pads", Ints{2, 2, 2, 2}}, {"output_padding", Ints{1, 1}}},
     {"DepthWiseConv2DTranspose", "Conv2D", "DepthWiseConv2D"}},
    {"kernel_6_stride_3",
     {1, 3, 4, 4},
     {3, 2, 6, 6},
     {{"strides", Ints{3, 3}}},
     {"DepthWiseConv2DTranspose", "DepthWiseConv2D", "Conv2D"}},
    {"dilated",
     {1, 2, 4, 5},
     {2, 2, 3, 3},
     {{"dilations", Ints{2, 2}}},
     {"DepthWiseConv2D", "Conv2D"}},
    {"output_shape",
     {1, 2, 4, 4},
     {2, 2, 3, 3},
     {{"strides", Ints{2, 2}}, {"output_shape", Ints{8, 8}}},
     {"Conv2DTranspose"}},
    {"auto_pad_same_upper",
     {1, 2, 4, 4},
     {2, 2, 3, 3},
     {{"strides", Ints{2, 2}}, {"auto_pad", "SAME_UPPER"}},
     {"Conv2DTranspose"}},
    {"two_groups",
     {1, 4, 4, 4},
     {4, 3, 4, 4},
     {{"group", 2}, {"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}},
     {"Conv2DTranspose"}},
    {"depthwise",
     {1, 3, 4, 4},
     {3, 1, 4, 4},
     {{"group", 3}, {"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}},
     {"DepthWiseConv2DTranspose"}},
    {"depthwise_kernel_6",
     {1, 3, 4, 4},
     {3, 1, 6, 6},
     {{"group", 3}, {"strides", Ints{2, 2}}},
     {"DepthWiseConv2DTranspose", "DepthWiseConv2D", "DepthWiseConv2D"}},
    {"one_dimension",
     {1, 3, 6},
     {3, 2, 4},
     {{"strides", Ints{2}}, {"pads", Ints{1, 1}}},
     {"Conv2DTranspose"}},
};

TEST_P(TransposedKinds, GiveWhatOnnxSays) {
    const TransposedShape& shape = GetParam();
    MadeModel model;
    model.input("x", shape.dims).output("y").random("w", shape.weights, 5);
    int64_t outputs = shape.weights[1];
    for (const With& attribute : shape.attributes) {
        if (attribute.proto.name() == "group") outputs *= attribute.proto.i();
    }
    model.random("b", {outputs}, 6);
    model.node("ConvTranspose", {"x", "w", "b"}, {"y"}, shape.attributes);
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), shape.kinds);
}

INSTANTIATE_TEST_SUITE_P(Shapes, TransposedKinds, testing::ValuesIn(TRANSPOSED_SHAPES),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PoolingRewrite, TheBorderOfAMaximumIsBelowAnyNumber) {
    // The engine's border holds zeros, which would win over all of these.
    MadeModel model = one_node(
        "MaxPool", {1, 1, 4, 4},
        {{"kernel_shape", Ints{3, 3}}, {"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}});
    std::vector<float> negative(16);
    for (size_t i = 0; i < 16; ++i) negative[i] = -1.0f - static_cast<float>(i);
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 1, 4, 4}, negative)}});
    expect_numbers(result, {-1, -2, -5, -6});
}

TEST(PoolingRewrite, BehindAReLUTheEnginesBorderOfZerosDoes) {
    MadeModel model;
    model.input("x", {1, 2, 6, 6}).output("y");
    model.node("Relu", {"x"}, {"r"});
    model.node("MaxPool", {"r"}, {"y"},
               {{"kernel_shape", Ints{3, 3}}, {"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"Activation", "Pooling"}));
}

TEST(PoolingRewrite, ZerosOfAPadAreTheEnginesBorder) {
    MadeModel model;
    model.input("x", {1, 2, 6, 6}).output("y").integers("p", {0, 0, 1, 1, 0, 0, 1, 1});
    model.node("Pad", {"x", "p"}, {"padded"});
    model.node("MaxPool", {"padded"}, {"y"},
               {{"kernel_shape", Ints{3, 3}}, {"strides", Ints{2, 2}}});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"Pooling"}));
}

TEST(PoolingRewrite, CeilModeKeepsTheLastHalfWindow) {
    MadeModel model =
        one_node("MaxPool", {1, 1, 1, 4},
                 {{"kernel_shape", Ints{1, 3}}, {"strides", Ints{1, 2}}, {"ceil_mode", 1}});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 1, 1, 4}, {-5, -4, -3, -2})}});
    expect_numbers(result, {-3, -2});
}

TEST(PoolingRewrite, AnAverageThatCountsThePaddingIsNotCorrected) {
    const std::vector<float> ones(9, 1.0f);
    MadeModel counts = one_node(
        "AveragePool", {1, 1, 3, 3},
        {{"kernel_shape", Ints{3, 3}}, {"pads", Ints{1, 1, 1, 1}}, {"count_include_pad", 1}});
    const double corner = 4.0 / 9;
    const double edge = 6.0 / 9;
    expect_numbers(convert_and_prove(counts.bytes(), {{"x", picture({1, 1, 3, 3}, ones)}}),
                   {corner, edge, corner, edge, 1, edge, corner, edge, corner}, 1e-7);
    MadeModel leaves_out = one_node("AveragePool", {1, 1, 3, 3},
                                    {{"kernel_shape", Ints{3, 3}}, {"pads", Ints{1, 1, 1, 1}}});
    const Converted result =
        convert_and_prove(leaves_out.bytes(), {{"x", picture({1, 1, 3, 3}, ones)}});
    expect_numbers(result, Numbers(9, 1.0), 1e-6);
    EXPECT_EQ(result.kinds(), (Kinds{"Pooling"}));
}

TEST(PoolingRewrite, AnAverageWithMarginsThatTheEngineCorrectsWronglyIsScaledByLines) {
    // With 4 rows, kernel 3, stride 2, padding 1 the last window sees no padding, but the engine
    // would correct it.
    for (const int64_t size : {4, 5, 6, 7}) {
        MadeModel model = one_node(
            "AveragePool", {1, 2, size, 5},
            {{"kernel_shape", Ints{3, 3}}, {"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}});
        expect_proof(convert_and_prove(model.bytes()));
    }
    MadeModel wide = one_node("AveragePool", {1, 1, 6, 6},
                              {{"kernel_shape", Ints{5, 5}}, {"pads", Ints{2, 2, 2, 2}}});
    expect_proof(convert_and_prove(wide.bytes()));
}

TEST(PoolingRewrite, AWindowWithoutAPixelIsRefused) {
    MadeModel model = one_node("MaxPool", {1, 1, 4, 4},
                               {{"kernel_shape", Ints{2, 2}}, {"pads", Ints{2, 2, 2, 2}}});
    expect_refusal(convert_and_prove(model.bytes()), "node \"y\" (MaxPool)",
                   "windows that each see a pixel expected");
}

TEST(ActivationRewrite, OtherSlopesThanATenthAreTwoBranches) {
    MadeModel other = one_node("LeakyRelu", {1, 2, 2, 2}, {{"alpha", 0.25}});
    const std::vector<float> values = {-4, -1, 0, 3, -8, 2, 1, -2};
    const Converted result =
        convert_and_prove(other.bytes(), {{"x", picture({1, 2, 2, 2}, values)}});
    expect_numbers(result, {-1, -0.25, 0, 3, -2, 2, 1, -0.5});
    MadeModel tenth = one_node("LeakyRelu", {1, 2, 2, 2}, {{"alpha", 0.1}});
    const Converted native = convert_and_prove(tenth.bytes());
    expect_proof(native);
    EXPECT_EQ(native.kinds(), (Kinds{"Activation"}));
}

TEST(ActivationRewrite, ClampsAtOtherNumbersThanSix) {
    const std::vector<float> values = {-4, -1, 0, 0.5, 1, 2, 6, 9};
    const auto clipped = [&](float low, float high) {
        MadeModel model;
        model.input("x", {1, 2, 2, 2}).output("y");
        model.floats("low", {}, {low}).floats("high", {}, {high});
        model.node("Clip", {"x", "low", "high"}, {"y"});
        return convert_and_prove(model.bytes(), {{"x", picture({1, 2, 2, 2}, values)}});
    };
    expect_numbers(clipped(0, 6), {0, 0, 0, 0.5, 1, 2, 6, 6});
    EXPECT_EQ(clipped(0, 6).kinds(), (Kinds{"Activation"}));
    expect_numbers(clipped(-1, 1), {-1, -1, 0, 0.5, 1, 1, 1, 1}, 1e-5);
    expect_numbers(clipped(0, 1), {0, 0, 0, 0.5, 1, 1, 1, 1}, 1e-5);
}

TEST(ActivationRewrite, ConstantsBetweenHalvesKeepMoreThanAHalfsDigits) {
    // A third is 1/3 - 8e-5 as a half.
    for (const int64_t channels : {1, 4}) {
        MadeModel model;
        model.input("x", {1, channels, 2, 2}).output("y").floats("third", {}, {1.0f / 3.0f});
        model.node("Mul", {"x", "third"}, {"y"});
        const std::vector<float> ones(static_cast<size_t>(channels) * 4, 1.0f);
        const Converted result =
            convert_and_prove(model.bytes(), {{"x", picture({1, channels, 2, 2}, ones)}});
        expect_numbers(result, Numbers(ones.size(), 1.0 / 3.0), 2e-6);
    }
}

TEST(ActivationRewrite, ASoftmaxOverTwoChannelsIsASigmoidOfTheirDistance) {
    MadeModel model = one_node("Softmax", {1, 2, 1, 2}, {{"axis", 1}});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 2, 1, 2}, {0, 1, 0, 0})}});
    const double share = 1 / (1 + std::exp(-1.0));
    expect_numbers(result, {0.5, share, 0.5, 1 - share}, 1e-6);
}

TEST(ActivationRewrite, AConstantThatEnlargesTheTensorIsRefused) {
    const std::vector<std::vector<int64_t>> cases[] = {{{1, 8}, {8, 1}},
                                                       {{1, 1, 2, 4}, {1, 8, 1, 1}},
                                                       {{1, 8, 1, 1}, {1, 1, 2, 4}},
                                                       {{1, 8}, {1, 1, 8}}};
    for (const auto& dims : cases) {
        for (const char* op_type : {"Add", "Mul"}) {
            MadeModel model;
            model.input("x", dims[0]).output("y").floats("c", dims[1], std::vector<float>(8, 1.5f));
            model.node(op_type, {"x", "c"}, {"y"});
            expect_refusal(convert_only(model.bytes()), op_type, "expected");
        }
    }
}

TEST(DenseRewrite, ABiasOfOneColumnIsNotFoldedAsOneRow) {
    MadeModel model;
    model.input("x", {4, 8}).output("y").random("w", {8, 4}, 3);
    model.floats("b", {4, 1}, {1, 2, 3, 4}).floats("k", {}, {2});
    model.node("Gemm", {"x", "w", "b"}, {"t"}).node("Mul", {"t", "k"}, {"y"});
    expect_refusal(convert_only(model.bytes()), "Gemm", "a bias of 4 numbers expected");
}

TEST(ConcatRewrite, AFirstTensorOfOneChannelIsNoStackOfRows) {
    MadeModel model;
    model.input("a", {1, 1, 2, 2}).input("b", {1, 2, 2, 2}).output("y");
    model.node("Concat", {"a", "b", "a"}, {"y"}, {{"axis", 1}});
    const Converted result = convert_and_prove(
        model.bytes(), {{"a", picture({1, 1, 2, 2}, {1, 2, 3, 4})},
                        {"b", picture({1, 2, 2, 2}, {5, 6, 7, 8, 9, 10, 11, 12})}});
    expect_numbers(result, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 1, 2, 3, 4});
}

TEST(ConcatRewrite, MoreThanTenTensorsAreJoinedInTurns) {
    MadeModel model;
    std::vector<std::string> names;
    for (int i = 0; i < 13; ++i) {
        names.push_back("x" + std::to_string(i));
        model.input(names.back(), {1, 2, 2, 2});
    }
    model.output("y").node("Concat", names, {"y"}, {{"axis", 1}});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"Concatenate", "Concatenate"}));
}

TEST(ConcatRewrite, RowsAndColumnsJoinToo) {
    for (const int64_t channels : {1, 3}) {
        for (const int axis : {2, 3, -1}) {
            MadeModel model;
            model.input("a", {1, channels, 3, 3}).input("b", {1, channels, 3, 3}).output("y");
            model.node("Concat", {"a", "b"}, {"y"}, {{"axis", axis}});
            expect_proof(convert_and_prove(model.bytes()));
        }
    }
}

TEST(ResizeRewrite, NearestByThreeRepeatsEachPixelThreeTimes) {
    MadeModel model;
    model.input("x", {1, 1, 1, 2}).output("y").floats("scales", {4}, {1, 1, 3, 3});
    model.node("Resize", {"x", "", "scales"}, {"y"}, {{"mode", "nearest"}});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 1, 1, 2}, {5, 7})}});
    expect_numbers(result, {5, 5, 5, 7, 7, 7, 5, 5, 5, 7, 7, 7, 5, 5, 5, 7, 7, 7});
}

TEST(ResizeRewrite, LinearByFourIsNotTheFirstPixelEverywhere) {
    // The engine's own factor of 4 without aligned corners would give 0 throughout.
    MadeModel model;
    model.input("x", {1, 1, 1, 2}).output("y").floats("scales", {4}, {1, 1, 1, 4});
    model.node("Resize", {"x", "", "scales"}, {"y"}, {{"mode", "linear"}});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 1, 1, 2}, {0, 8})}});
    expect_numbers(result, {0, 0, 1, 3, 5, 7, 8, 8});
}

TEST(ResizeRewrite, EveryCornerRuleAndFactor) {
    for (const char* corner : {"half_pixel", "pytorch_half_pixel", "asymmetric", "align_corners"}) {
        for (const char* mode : {"nearest", "linear"}) {
            for (const float factor : {2.0f, 3.0f, 4.0f, 8.0f, 0.5f}) {
                SCOPED_TRACE(std::string(corner) + " " + mode + " " + std::to_string(factor));
                MadeModel model;
                model.input("x", {1, 2, 4, 6}).output("y");
                model.floats("scales", {4}, {1, 1, factor, factor});
                model.node("Resize", {"x", "", "scales"}, {"y"},
                           {{"mode", mode}, {"coordinate_transformation_mode", corner}});
                const Converted result = convert_and_prove(model.bytes());
                const bool aligned = std::string(corner) == "align_corners";
                const bool refused =
                    aligned && std::string(mode) == "linear" && (factor == 3.0f || factor < 1.0f);
                if (refused) {
                    expect_refusal(result, "node \"y\" (Resize)", "expected");
                } else {
                    expect_proof(result);
                }
            }
        }
    }
}

TEST(ResizeRewrite, RowsAndColumnsMayHaveFactorsOfTheirOwn) {
    for (const char* mode : {"nearest", "linear"}) {
        MadeModel model;
        model.input("x", {1, 2, 3, 4}).output("y").floats("scales", {4}, {1, 1, 2, 4});
        model.node("Resize", {"x", "", "scales"}, {"y"}, {{"mode", mode}});
        expect_proof(convert_and_prove(model.bytes()));
    }
}

TEST(ResizeRewrite, NearestNeedsNoWholeFactor) {
    MadeModel model;
    model.input("x", {1, 1, 1, 3}).output("y").integers("sizes", {1, 1, 1, 5});
    model.node("Resize", {"x", "", "", "sizes"}, {"y"},
               {{"mode", "nearest"},
                {"coordinate_transformation_mode", "asymmetric"},
                {"nearest_mode", "floor"}});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 1, 1, 3}, {5, 7, 9})}});
    expect_numbers(result, {5, 5, 7, 7, 9});
}

TEST(ShuffleRewrite, BothOrdersOfDepthToSpace) {
    std::vector<float> values(8);
    for (size_t i = 0; i < 8; ++i) values[i] = static_cast<float>(i);
    for (const bool columns_first : {false, true}) {
        MadeModel model = one_node("DepthToSpace", {1, 8, 1, 1},
                                   {{"blocksize", 2}, {"mode", columns_first ? "CRD" : "DCR"}});
        const Converted result =
            convert_and_prove(model.bytes(), {{"x", picture({1, 8, 1, 1}, values)}});
        expect_numbers(result, columns_first ? Numbers{0, 1, 2, 3, 4, 5, 6, 7}
                                             : Numbers{0, 2, 4, 6, 1, 3, 5, 7});
    }
}

TEST(ShuffleRewrite, SpaceToDepthHasThePixelsOfABlockOutermost) {
    MadeModel model = one_node("SpaceToDepth", {1, 2, 2, 2}, {{"blocksize", 2}});
    const Converted result = convert_and_prove(
        model.bytes(), {{"x", picture({1, 2, 2, 2}, {0, 1, 2, 3, 10, 11, 12, 13})}});
    expect_numbers(result, {0, 10, 1, 11, 2, 12, 3, 13});
}

TEST(DenseRewrite, CountsNotDivisibleByFourLoseNoInput) {
    // The engine's full connection leaves out the last inputs of six.
    MadeModel model;
    model.input("x", {1, 6}).output("y").floats("w", {1, 6}, {1, 1, 1, 1, 1, 1});
    model.node("Gemm", {"x", "w"}, {"y"}, {{"transB", 1}});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 6}, {1, 2, 3, 4, 5, 6})}});
    expect_numbers(result, {21});
    EXPECT_EQ(result.kinds(), (Kinds{"Conv2D"}));
}

TEST(DenseRewrite, AlphaAndBetaGoIntoTheWeights) {
    MadeModel model;
    model.input("x", {1, 2}).output("y").floats("w", {2, 2}, {1, 2, 3, 4}).floats("c", {2}, {1, 2});
    model.node("Gemm", {"x", "w", "c"}, {"y"}, {{"alpha", 2.0}, {"beta", 0.5}});
    const Converted result = convert_and_prove(model.bytes(), {{"x", picture({1, 2}, {1, 1})}});
    expect_numbers(result, {8.5, 13});
}

TEST(DenseRewrite, AFlattenedPictureMeetsItsWeightsInOnnxsOrder) {
    MadeModel model;
    model.input("x", {1, 2, 2, 2}).output("y");
    model.floats("w", {8, 4}, std::vector<float>(32, 0.0f));
    std::vector<float> weights(32, 0.0f);
    for (size_t i = 0; i < 4; ++i) weights[(2 * i + 1) * 4 + i] = 1.0f;  // the odd places
    model.graph().mutable_initializer(0)->set_raw_data(weights.data(), 32 * sizeof(float));
    model.node("Flatten", {"x"}, {"flat"}).node("MatMul", {"flat", "w"}, {"y"});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", picture({1, 2, 2, 2}, {0, 1, 2, 3, 4, 5, 6, 7})}});
    expect_numbers(result, {1, 3, 5, 7});
    EXPECT_EQ(result.kinds(), (Kinds{"FullConnection"}));
}

TEST(Halves, WeightsBeyondTheLargestHalfAreRefused) {
    MadeModel model;
    model.input("x", {1, 1, 2, 2}).output("y").floats("w", {1, 1, 1, 1}, {70000.0f});
    model.node("Conv", {"x", "w"}, {"y"});
    expect_refusal(convert_and_prove(model.bytes()), "node \"y\" (Conv)",
                   "weights: 70000.000000 is beyond 65504, the largest half");
}

TEST(Halves, TheReportTellsWhatRoundingCosts) {
    MadeModel model;
    // 1 + 2^-12 is half way between two halves, and goes to 1.
    model.input("x", {1, 1, 2, 2}).output("y").floats("w", {1, 1, 1, 1}, {1.0f + 0x1p-12f});
    model.node("Conv", {"x", "w"}, {"y"});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    ASSERT_EQ(result.conversion.layers.size(), 2u);
    EXPECT_NEAR(result.conversion.layers[1].largest_error, 0x1p-12, 1e-7);
    EXPECT_EQ(result.conversion.layers[1].node, "y");
}

TEST(Folding, ABatchNormalisationGoesIntoTheConvolutionAndTheActivationToo) {
    MadeModel model;
    model.input("x", {1, 3, 8, 8}).output("y").random("w", {4, 3, 3, 3}, 1);
    model.random("scale", {4}, 2).random("bias", {4}, 3).random("mean", {4}, 4);
    model.floats("variance", {4}, {0.5f, 1, 2, 3});
    model.node("Conv", {"x", "w"}, {"c"}, {{"pads", Ints{1, 1, 1, 1}}});
    model.node("Identity", {"c"}, {"i"});
    model.node("BatchNormalization", {"i", "scale", "bias", "mean", "variance"}, {"n"});
    model.node("Dropout", {"n"}, {"d"});
    model.node("Relu", {"d"}, {"y"});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"Conv2D"}));
}

TEST(Folding, AValueThatIsReadTwiceStays) {
    MadeModel model;
    model.input("x", {1, 3, 4, 4}).output("y").output("c").random("w", {3, 3, 1, 1}, 1);
    model.node("Conv", {"x", "w"}, {"c"}).node("Relu", {"c"}, {"y"});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"Conv2D", "Activation"}));
    EXPECT_EQ(result.conversion.names.outputs.size(), 2u);
}

TEST(Folding, PadsGoIntoTheConvolutionAndTheAverage) {
    for (const char* type : {"Conv", "AveragePool"}) {
        MadeModel model;
        model.input("x", {1, 2, 6, 6}).output("y").integers("p", {0, 0, 1, 1, 0, 0, 1, 1});
        model.node("Pad", {"x", "p"}, {"padded"});
        if (std::string(type) == "Conv") {
            model.random("w", {2, 2, 3, 3}, 1).node("Conv", {"padded", "w"}, {"y"});
        } else {
            model.node(type, {"padded"}, {"y"}, {{"kernel_shape", Ints{3, 3}}});
        }
        const Converted result = convert_and_prove(model.bytes());
        expect_proof(result);
        EXPECT_EQ(result.kinds().back(), std::string(type) == "Conv" ? "Conv2D" : "Pooling");
    }
}

TEST(Outputs, AFlattenedOneIsARow) {
    MadeModel model = one_node("Flatten", {1, 2, 3, 3});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"TensorReshape"}));
}

TEST(Outputs, AnInputThatIsOneGetsALayer) {
    MadeModel model = one_node("Identity", {1, 2, 3, 3});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"Activation"}));
}

TEST(Inputs, OpenDimensionsNeedAShape) {
    MadeModel model = one_node("Relu", {-1, 3, -1, -1});
    expect_refusal(convert_and_prove(model.bytes()), "the input \"x\"", "--shape");
    ConvertOptions options;
    options.shapes["x"] = {1, 3, 5, 6};
    expect_proof(convert_and_prove(model.bytes(), {}, options));
    options.shapes["x"] = {1, 4, 5, 6};
    expect_refusal(convert_and_prove(model.bytes(), {}, options), "the input \"x\"",
                   "asked for was [1, 4, 5, 6]");
    options.shapes = {{"z", {1}}};
    expect_refusal(convert_and_prove(model.bytes(), {}, options), "\"z\"", "has no input");
}

TEST(Inputs, HugeShapesAreRefusedBeforeMemoryIsTaken) {
    MadeModel huge = one_node("Relu", {1, 65535, 65535, 65535});
    expect_refusal(convert_and_prove(huge.bytes()), "the input \"x\"", "at most 268435456 numbers");
    MadeModel wide = one_node("Relu", {1, 1, 1, 65536});
    expect_refusal(convert_and_prove(wide.bytes()), "the input \"x\"", "1 to 65535");
    MadeModel grown;
    grown.input("x", {1, 1, 1, 1}).output("y").floats("s", {4}, {1, 1, 65535, 65535});
    grown.node("Resize", {"x", "", "s"}, {"y"}, {{"mode", "nearest"}});
    expect_refusal(convert_and_prove(grown.bytes()), "node \"y\" (Resize)", "expected");
    MadeModel padded;
    padded.input("x", {1, 1, 4, 4}).output("y").integers("p", {0, 0, 60000, 60000, 0, 0, 5, 5});
    padded.node("Pad", {"x", "p"}, {"y"});
    expect_refusal(convert_and_prove(padded.bytes()), "node \"y\" (Pad)", "expected");
}

TEST(Inputs, AnOpenFirstDimensionIsABatchOfOne) {
    MadeModel model = one_node("Relu", {-1, 3, 4, 4});
    expect_proof(convert_and_prove(model.bytes()));
}

}  // namespace
