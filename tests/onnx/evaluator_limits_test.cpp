// What the evaluator is given from outside, and shapes made to exhaust it.
#include <gtest/gtest.h>

#include <string>

#include "onnx/one_node.h"

namespace {

using namespace onnx_test;
using modelkit::onnx::ValueInfo;

constexpr int64_t HUGE = int64_t(1) << 40;

TEST(Evaluator, RefusesOperatorsThatItDoesNotKnow) {
    OneNode("Frobnicate").reals({1}, {1}).is_refused("the operator is not supported");
    OneNode("Resize", 9).reals({1}, {1}).reals({1}, {1}).is_refused("not part of operator set 9");
    OneNode("HardSwish", 13).reals({1}, {1}).is_refused("not part of operator set 13");
}

TEST(Evaluator, RefusesAttributesThatItDoesNotKnow) {
    OneNode("Relu")
        .reals({1}, {1})
        .with("slope", 0.5)
        .is_refused("attribute \"slope\" is not supported");
    OneNode("LeakyRelu")
        .reals({1}, {1})
        .with("alpha", 1)
        .is_refused("attribute \"alpha\" is of another kind");
    OneNode("LeakyRelu").reals({1}, {1}).with("alp", 0.5).is_refused("\"alp\" is not supported");
    OneNode("LeakyRelu").reals({1}, {1}).with("", 0.5).is_refused("is not supported");
}

TEST(Evaluator, CountsInputs) {
    OneNode("Add").reals({1}, {1}).is_refused("has 1 inputs, expected 2");
    OneNode("Add").reals({1}, {1}).skip().is_refused("has 2 inputs, expected 2");
    OneNode("Add").skip().reals({1}, {1}).is_refused("input 0 is missing");
    OneNode("Relu").reals({1}, {1}).reals({1}, {1}).is_refused("has 2 inputs, expected 1");
    OneNode("Sum").is_refused("has 0 inputs, expected 1 or more");
    OneNode("Relu").reals({1}, {1}).outputs({}).is_refused("has no outputs");
    OneNode("Relu").reals({1}, {1}).outputs({"y", "z"}).is_refused("output 1 is not supported");
}

TEST(Evaluator, ChecksFormsWithoutValues) {
    const auto line = [](OneNode node) {
        node.graph.nodes = {node.node};
        return check_forms(node.graph).message();
    };
    EXPECT_EQ(line(OneNode("Add").reals({2}, {1, 2}).reals({3}, {1, 2, 3})), "");
    EXPECT_EQ(line(OneNode("Add").reals({1}, {1})),
              "node \"the node\" (Add): has 1 inputs, expected 2");
    EXPECT_EQ(line(OneNode("Frobnicate")),
              "node \"the node\" (Frobnicate): the operator is not supported");
    EXPECT_EQ(line(OneNode("Relu").reals({1}, {1}).with("slope", 0.5)),
              "node \"the node\" (Relu): attribute \"slope\" is not supported");
    EXPECT_EQ(line(OneNode("Sum")), "node \"the node\" (Sum): has 0 inputs, expected 1 or more");
}

TEST(Evaluator, ComputesNodeAfterNode) {
    Graph graph;
    graph.opset = 13;
    ValueInfo input;
    input.name = "x";
    input.type = ElementType::Float;
    input.has_shape = true;
    input.dims = {-1, 2};
    graph.inputs = {input};
    Node relu;
    relu.op_type = "Relu";
    relu.inputs = {"x"};
    relu.outputs = {"r"};
    Node neg;
    neg.op_type = "Neg";
    neg.inputs = {"r"};
    neg.outputs = {"y"};
    graph.nodes = {relu, neg};
    std::map<std::string, Tensor> values;
    const Tensor x = Tensor::of_floats({1, 2}, {-1, 2});
    ASSERT_TRUE(evaluate(graph, {{"x", x}}, values));
    EXPECT_EQ(values.size(), 3u);
    EXPECT_EQ(values.at("r").numbers(), (Numbers{0, 2}));
    EXPECT_EQ(values.at("y").numbers(), (Numbers{0, -2}));
    EXPECT_EQ(values.at("y").type, ElementType::Double);

    EXPECT_EQ(evaluate(graph, {}, values).message(), "the input \"x\" is not given");
    EXPECT_EQ(evaluate(graph, {{"x", Tensor::of_floats({2}, {1, 2})}}, values).message(),
              "the input \"x\" has shape [2], expected [-1, 2]");
    EXPECT_EQ(evaluate(graph, {{"x", Tensor::of_floats({1, 3}, {1, 2, 3})}}, values).message(),
              "the input \"x\" has shape [1, 3], expected [-1, 2]");
    EXPECT_EQ(evaluate(graph, {{"x", Tensor::of_integers({1, 2}, {1, 2})}}, values).message(),
              "the input \"x\" is of int64, expected float");
    EXPECT_EQ(evaluate(graph, {{"x", Tensor::of_floats({1, 2}, {1})}}, values).message(),
              "the input \"x\" has no sound values");
    graph.nodes[1].inputs = {"nowhere"};
    EXPECT_EQ(evaluate(graph, {{"x", x}}, values).message(),
              "node \"y\" (Neg): reads \"nowhere\", which has no sound values");
    EXPECT_EQ(values.count("r"), 1u);
}

TEST(Evaluator, TakesWeightsWhoseValuesAreMissingForNone) {
    Tensor hollow = Tensor::of_floats({1000}, {1});
    OneNode("Relu").tensor(hollow).is_refused("no sound values");
    hollow = Tensor::of_floats({-1, -1}, {1});
    OneNode("Relu").tensor(hollow).is_refused("no sound values");
    hollow = Tensor::of_integers({1}, {1});
    hollow.type = ElementType::Float;
    OneNode("Relu").tensor(hollow).is_refused("no sound values");
}

TEST(EvaluatorLimits, CountElementsOfAllNodesTogether) {
    EvaluationLimits limits;
    limits.elements = 5;
    OneNode("Relu")
        .reals({6}, Numbers(6))
        .within(limits)
        .is_refused("a tensor of shape [6] is too large: 5 elements are left for all");
    limits.elements = 6;
    OneNode("Relu").reals({6}, Numbers(6)).within(limits).gives({6}, Numbers(6));
}

TEST(EvaluatorLimits, CountStepsBeforeTheyAreTaken) {
    EvaluationLimits limits;
    limits.steps = 1000;
    OneNode("MatMul")
        .reals({10, 10}, Numbers(100))
        .reals({10, 10}, Numbers(100))
        .within(limits)
        .is_refused("would take too long");
}

TEST(EvaluatorLimits, HoldForShapesFromNowhere) {
    OneNode("ConstantOfShape").list({HUGE}).is_refused("too large");
    OneNode("ConstantOfShape").list({INT64_MAX, INT64_MAX}).is_refused("too large");
    OneNode("ConstantOfShape").list({-1}).is_refused("too large");
    OneNode("ConstantOfShape").list({0, HUGE}).gives({0, HUGE}, {});
    OneNode("Expand").reals({1}, {1}).list({HUGE, HUGE}).is_refused("too large");
    OneNode("Pad").reals({1}, {1}).list({HUGE, 0}).is_refused("too large");
    OneNode("Pad").reals({1}, {1}).list({INT64_MAX, INT64_MAX}).is_refused("not possible");
    OneNode("Pad").reals({1}, {1}).list({INT64_MIN, 0}).is_refused("not possible");
    OneNode("Resize").reals({1}, {1}).skip().skip().list({INT64_MAX}).is_refused("too large");
    OneNode("Upsample", 7).reals({1}, {1}).with_numbers("scales", {1e12}).is_refused("too large");
    OneNode("Add")
        .reals({1 << 20, 1}, Numbers(1 << 20))
        .reals({1, 1 << 20}, Numbers(1 << 20))
        .is_refused("too large");
}

TEST(EvaluatorLimits, HoldForWindows) {
    const auto conv = [] {
        return OneNode("Conv").reals({1, 1, 1, 1}, {1}).reals({1, 1, 1, 1}, {1});
    };
    conv().with("pads", Dims{HUGE, HUGE, HUGE, HUGE}).is_refused("too large");
    conv().with("pads", Dims{INT64_MAX, 0, INT64_MAX, 0}).is_refused("\"pads\"");
    conv().with("dilations", Dims{HUGE, HUGE}).gives({1, 1, 1, 1}, {1});
    conv().with("strides", Dims{HUGE, HUGE}).gives({1, 1, 1, 1}, {1});
    conv().with("group", HUGE).is_refused("group(s)");
    conv().with("group", INT64_MAX).is_refused("group(s)");
    const auto pool = [](const char* op_type) {
        return OneNode(op_type).reals({1, 1, 2, 2}, {1, 2, 3, 4});
    };
    for (const char* op_type : {"MaxPool", "AveragePool"}) {
        pool(op_type).with("kernel_shape", Dims{HUGE, HUGE}).is_refused("does not fit into 2");
        pool(op_type).with("kernel_shape", Dims{INT64_MAX, 1}).is_refused("\"kernel_shape\"");
        pool(op_type)
            .with("kernel_shape", Dims{1, 1})
            .with("pads", Dims{HUGE, HUGE, HUGE, HUGE})
            .is_refused("too large");
    }
    pool("AveragePool")
        .with("kernel_shape", Dims{HUGE, HUGE})
        .with("pads", Dims{HUGE - 1, HUGE - 1, 0, 0})
        .gives({1, 1, 2, 2}, {1, 1.5, 2, 2.5});
    const auto transposed = [] {
        return OneNode("ConvTranspose").reals({1, 1, 1, 2}, {1, 2}).reals({1, 1, 1, 1}, {1});
    };
    transposed().with("strides", Dims{1, HUGE}).is_refused("too many");
    transposed().with("strides", Dims{HUGE / 2, HUGE / 2}).is_refused("too large");
    transposed().with("output_shape", Dims{HUGE, HUGE}).is_refused("too large");
}

TEST(EvaluatorLimits, HoldForEmptyTensorsWithLongAxes) {
    OneNode("Gemm").reals({HUGE, 0}, {}).reals({0, 0}, {}).gives({HUGE, 0}, {});
    OneNode("MatMul").reals({HUGE, 0}, {}).reals({0, 0}, {}).gives({HUGE, 0}, {});
    OneNode("Conv").reals({HUGE, 1, 0, 1}, {}).reals({1, 1, 1, 1}, {1}).is_refused("no pixels");
    OneNode("Softmax").reals({HUGE, 0}, {}).gives({HUGE, 0}, {});
    OneNode("Concat")
        .reals({HUGE, 0}, {})
        .reals({HUGE, 0}, {})
        .with("axis", 1)
        .gives({HUGE, 0}, {});
    OneNode("Gather").reals({HUGE, 0}, {}).list({5}).gives({1, 0}, {});
    OneNode("Transpose").reals({HUGE, 0}, {}).gives({0, HUGE}, {});
    OneNode("SpaceToDepth")
        .reals({1, HUGE, 0, 0}, {})
        .with("blocksize", 65535)
        .is_refused("four dimensions");
    OneNode("GlobalAveragePool").reals({1, 0, 5}, {}).gives({1, 0, 1}, {});
}

}  // namespace
