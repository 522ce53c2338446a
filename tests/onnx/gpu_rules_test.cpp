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
                   "no convolution of kernel 7x7");
    expect_accepted(conv({8, 4, 3, 3}, {{"pads", Ints{2, 2, 2, 2}}, {"dilations", Ints{2, 2}}}));
    expect_refused(conv({8, 4, 5, 5}, {{"pads", Ints{4, 4, 4, 4}}, {"dilations", Ints{2, 2}}}),
                   "dilates kernels of 3x3 only");
    expect_accepted(conv({4, 1, 3, 3}, {{"group", 4}, {"pads", Ints{1, 1, 1, 1}}}));
    expect_refused(conv({4, 1, 5, 5}, {{"group", 4}, {"pads", Ints{2, 2, 2, 2}}}),
                   "a depthwise kernel of 3x3");
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
    expect_refused(transposed(4, {{"strides", Ints{2, 2}}, {"pads", Ints{1, 1, 1, 1}}}),
                   "a transposed convolution of kernel 3x3");
}

TEST(GpuRules, KnowPoolingsActivationsAndJoins) {
    const auto node = [](const std::string& type, const std::vector<With>& attributes) {
        MadeModel model;
        model.input("x", {1, 4, 16, 16}).output("y").node(type, {"x"}, {"y"}, attributes);
        return model;
    };
    expect_accepted(node("MaxPool", {{"kernel_shape", Ints{2, 2}}, {"strides", Ints{2, 2}}}));
    expect_refused(node("MaxPool", {{"kernel_shape", Ints{5, 5}}}),
                   "no maximum pooling of window 5x5");
    expect_refused(node("AveragePool", {{"kernel_shape", Ints{3, 3}}, {"pads", Ints{1, 1, 1, 1}}}),
                   "counts the padding of an average");
    expect_refused(node("GlobalAveragePool", {}), "no average pooling of window 16x16");
    expect_accepted(node("Sigmoid", {}));
    expect_refused(node("Tanh", {}), "another activation");
    expect_accepted(node("DepthToSpace", {{"blocksize", 2}, {"mode", "CRD"}}));
    const auto join = [](int64_t first) {
        MadeModel model;
        model.input("a", {1, first, 8, 8}).input("b", {1, 8, 8, 8}).output("y");
        model.node("Concat", {"a", "b"}, {"y"}, {{"axis", 1}});
        return model;
    };
    expect_accepted(join(4));
    expect_refused(join(6), "joins whole slices of four channels");
    MadeModel recurrent;
    recurrent.input("x", {3, 1, 4}).output("y").random("w", {1, 16, 4}, 1);
    recurrent.random("r", {1, 16, 4}, 2).node("LSTM", {"x", "w", "r"}, {"y"}, {{"hidden_size", 4}});
    const Converted result = convert_only(recurrent.bytes(), both());
    ASSERT_FALSE(result.status);
    EXPECT_NE(result.status.message().find("the GPU engine has no layer"), std::string::npos);
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
