// What --engines gpu and both refuse, by the GPU engine's layer tables.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/made_model.h"

namespace {

using namespace onnx_test;
using Ints = std::vector<int64_t>;

ConvertOptions both() {
    ConvertOptions options;
    options.engines = Engines::Both;
    return options;
}

void expect_refused(const MadeModel& model, const std::string& reason) {
    expect_proof(convert_and_prove(model.bytes()));
    const Converted result = convert_only(model.bytes(), both());
    ASSERT_FALSE(result.status) << "was converted";
    EXPECT_NE(result.status.message().find(reason), std::string::npos) << result.status.message();
    EXPECT_NE(result.status.message().find("node \""), std::string::npos);
}

void expect_accepted(const MadeModel& model) {
    expect_proof(convert_and_prove(model.bytes(), {}, both()));
}

MadeModel conv(const std::vector<int64_t>& weights, const std::vector<With>& attributes,
               int64_t channels = 4) {
    MadeModel model;
    model.input("x", {1, channels, 16, 16}).output("y").random("w", weights, 1);
    model.node("Conv", {"x", "w"}, {"y"}, attributes);
    return model;
}

TEST(GpuRules, KnowTheKernels) {
    expect_accepted(conv({8, 4, 3, 3}, {{"pads", Ints{1, 1, 1, 1}}}));
    expect_accepted(conv({8, 4, 1, 1}, {}));
    expect_accepted(conv({8, 4, 5, 5}, {{"pads", Ints{2, 2, 2, 2}}}));
    expect_refused(conv({8, 4, 7, 7}, {{"pads", Ints{3, 3, 3, 3}}}),
                   "expected a kernel of 1x1, 3x1, 1x3, 3x3, 4x4, 5x1, 1x5, 5x5, 7x1 or 1x7 on the "
                   "GPU engine, found 7x7");
    expect_accepted(conv({8, 4, 3, 3}, {{"pads", Ints{2, 2, 2, 2}}, {"dilations", Ints{2, 2}}}));
    expect_refused(conv({8, 4, 5, 5}, {{"pads", Ints{4, 4, 4, 4}}, {"dilations", Ints{2, 2}}}),
                   "expected a dilation of 1x1 for this kernel on the GPU engine, found 2x2");
    expect_refused(conv({8, 4, 3, 3}, {{"pads", Ints{4, 4, 4, 4}}, {"dilations", Ints{2, 2}}}),
                   "a dilation that is not the padding");
    expect_accepted(conv({4, 1, 3, 3}, {{"group", 4}, {"pads", Ints{1, 1, 1, 1}}}));
    expect_accepted(conv({4, 1, 5, 5}, {{"group", 4}, {"pads", Ints{2, 2, 2, 2}}}));
    expect_refused(conv({4, 1, 7, 7}, {{"group", 4}, {"pads", Ints{3, 3, 3, 3}}}),
                   "a kernel of 3x3 or 5x5 for a depthwise convolution");
    expect_refused(conv({8, 1, 3, 3}, {{"group", 4}, {"pads", Ints{1, 1, 1, 1}}}),
                   "a depth multiplier of 1");
    // Groups are spread out, which both engines have.
    expect_accepted(conv({8, 2, 3, 3}, {{"group", 2}, {"pads", Ints{1, 1, 1, 1}}}));
}

TEST(GpuRules, KnowTheTransposedKernel) {
    const auto transposed = [](int64_t kernel, const std::vector<With>& attributes) {
        MadeModel model;
        model.input("x", {1, 4, 8, 8}).output("y").random("w", {4, 8, kernel, kernel}, 1);
        model.node("ConvTranspose", {"x", "w"}, {"y"}, attributes);
        return model;
    };
    expect_accepted(transposed(
        3, {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}, {"output_padding", Ints{1, 1}}}));
    // Two by two is three by three with zeros.
    expect_accepted(transposed(2, {{"strides", Ints{2, 2}}}));
    // Others that double the sides go by blocks of two by two pixels.
    expect_accepted(transposed(4, {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}}));
    expect_refused(transposed(5, {{"strides", Ints{3, 3}}, {"pads", Ints{1, 1, 1, 1}}}),
                   "a kernel of 3x3 or 2x2 for a transposed convolution");
    // Groups of one channel are a layer that only the CPU engine has, and so are zeros between.
    MadeModel grouped;
    grouped.input("x", {1, 4, 8, 8}).output("y").random("w", {4, 1, 2, 2}, 1);
    grouped.node("ConvTranspose", {"x", "w"}, {"y"}, {{"strides", Ints{2, 2}}, {"group", 4}});
    expect_refused(grouped,
                   "attribute \"group\" 1 for a transposed convolution on the GPU engine expected, "
                   "found 4");
    expect_refused(
        transposed(6, {{"strides", Ints{3, 3}}}),
        "attribute \"strides\" of 1, or kernel, pads and output of one transposed layer, "
        "on the GPU engine expected, found strides of 3x3 for a kernel of 6x6");
}

TEST(GpuRules, KnowPoolingsActivationsAndJoins) {
    const auto node = [](const std::string& type, const std::vector<With>& attributes) {
        MadeModel model;
        model.input("x", {1, 4, 16, 16}).output("y").node(type, {"x"}, {"y"}, attributes);
        return model;
    };
    expect_accepted(node("MaxPool", {{"kernel_shape", Ints{2, 2}}, {"strides", Ints{2, 2}}}));
    expect_refused(node("MaxPool", {{"kernel_shape", Ints{5, 5}}}),
                   "a kernel of 2x2, 3x3, 1x4 or 2x4 for maximum pooling");
    expect_refused(node("AveragePool", {{"kernel_shape", Ints{3, 3}}, {"pads", Ints{1, 1, 1, 1}}}),
                   "an average with padding");
    expect_refused(
        node("GlobalAveragePool", {}),
        "a kernel of 2x2, 3x3, 4x4, 7x7 or 8x8 for average pooling on the GPU engine, found "
        "16x16");
    expect_accepted(node("Sigmoid", {}));
    expect_refused(
        node("Tanh", {}),
        "expected an activation of kind 2, 4, 8 or 9 on the GPU engine, found kind 3 (Tanh)");
    expect_accepted(node("DepthToSpace", {{"blocksize", 2}, {"mode", "CRD"}}));
    const auto join = [](int64_t first) {
        MadeModel model;
        model.input("a", {1, first, 8, 8}).input("b", {1, 8, 8, 8}).output("y");
        model.node("Concat", {"a", "b"}, {"y"}, {{"axis", 1}});
        return model;
    };
    expect_accepted(join(4));
    expect_refused(join(6), "channels in fours in all bottoms but the last");
    MadeModel recurrent;
    recurrent.input("x", {3, 1, 4}).output("y").random("w", {1, 16, 4}, 1);
    recurrent.random("r", {1, 16, 4}, 2).node("LSTM", {"x", "w", "r"}, {"y"}, {{"hidden_size", 4}});
    const Converted result = convert_only(recurrent.bytes(), both());
    ASSERT_FALSE(result.status);
    EXPECT_NE(result.status.message().find("the GPU engine has no layer"), std::string::npos);
}

// The padding of the first is in the program that both run.
TEST(GpuRules, TwoDepthwiseKernelsOfOneNameHaveOnePadding) {
    const auto two = [](int64_t second_padding, int64_t second_stride) {
        MadeModel model;
        model.input("x", {1, 8, 16, 16}).output("y").random("w", {8, 1, 3, 3}, 1);
        model.random("v", {8, 1, 3, 3}, 2);
        model.node("Conv", {"x", "w"}, {"c"}, {{"group", 8}, {"pads", Ints{1, 1, 1, 1}}});
        model.node("Conv", {"c", "v"}, {"y"},
                   {{"group", 8},
                    {"pads", Ints(4, second_padding)},
                    {"strides", Ints{second_stride, second_stride}}});
        return model;
    };
    expect_accepted(two(1, 1));
    expect_refused(two(0, 1), "expected the padding of layer 1, 1x1, whose program it shares");
    expect_accepted(two(0, 2));
}

// One pixel of 224 is no whole number of halves: a half of 1/224 means 0.99997 pixels. Programs
// that go by the image do not mind.
TEST(GpuRules, AnOutputOfOnePixelIsWhatTheImageHas) {
    MadeModel model;
    model.input("x", {1, 4, 224, 224})
        .output("y")
        .random("w", {5, 8}, 1)
        .random("v", {8, 4, 3, 3}, 2);
    model.node("Conv", {"x", "v"}, {"c"}, {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}});
    for (const char* from_to : {"cd", "de", "ef", "fg"}) {
        model.node("MaxPool", {std::string(1, from_to[0])}, {std::string(1, from_to[1])},
                   {{"kernel_shape", Ints{2, 2}}, {"strides", Ints{2, 2}}});
    }
    model.node("GlobalAveragePool", {"g"}, {"h"}).node("Flatten", {"h"}, {"i"});
    model.node("Gemm", {"i", "w"}, {"y"}, {{"transB", 1}});
    expect_accepted(model);
    model.node("Relu", {"y"}, {"r"}).node("Mul", {"y", "r"}, {"z"}).output("z");
    expect_refused(model, "a half holds no factor of the base size for this width");
}

TEST(GpuRules, AConstantForEachChannelIsACentreTapThatBothEnginesHave) {
    MadeModel model;
    model.input("x", {1, 4, 8, 8}).output("y").floats("s", {4, 1, 1}, {1, 2, 3, 4});
    model.node("Mul", {"x", "s"}, {"y"});
    const Converted result = convert_and_prove(model.bytes(), {}, both());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (std::vector<std::string>{"DepthWiseConv2D"}));
}

}  // namespace
