// Element-wise operators, normalisation and matrices by numbers worked out by hand.
#include <gtest/gtest.h>

#include <cmath>

#include "onnx/one_node.h"

namespace {

using namespace onnx_test;

TEST(EvaluatorActivations, KeepNaN) {
    for (const char* name : {"Relu", "LeakyRelu", "Sigmoid", "Tanh", "Clip", "Abs", "HardSigmoid",
                             "Elu", "Neg", "Exp"}) {
        SCOPED_TRACE(name);
        OneNode(name).reals({1}, {NOT_A_NUMBER}).gives({1}, {NOT_A_NUMBER});
    }
}

TEST(EvaluatorActivations, HaveTheirLimits) {
    OneNode("Sigmoid").reals({4}, {-ENDLESS, -1000, 1000, 0}).gives({4}, {0, 0, 1, 0.5});
    OneNode("Tanh").reals({3}, {-1000, 0, 1000}).gives({3}, {-1, 0, 1});
    OneNode("Relu").reals({3}, {-1, 0, 2}).gives({3}, {0, 0, 2});
    OneNode("HardSigmoid").reals({3}, {-5, 0, 5}).gives({3}, {0, 0.5, 1});
    OneNode("HardSwish", 14).reals({3}, {-4, 0, 4}).gives({3}, {0, 0, 4});
}

TEST(EvaluatorActivations, HaveSlopesStoredAsFloats) {
    OneNode("LeakyRelu").reals({2}, {-1, 1}).gives({2}, {-static_cast<double>(0.01f), 1});
    OneNode("LeakyRelu").reals({1}, {-2}).with("alpha", 0.5).gives({1}, {-1});
    OneNode("Elu").reals({1}, {-1}).with("alpha", 2.0).gives({1}, {2 * std::expm1(-1)}, 1e-15);
    OneNode("PRelu")
        .reals({1, 2, 2}, {-1, -2, -3, 4})
        .reals({2, 1}, {2, 3})
        .gives({1, 2, 2}, {-2, -4, -9, 4});
    OneNode("PRelu").reals({2}, {1, 2}).reals({2, 2}, {1, 1, 1, 1}).is_refused("larger than");
}

TEST(EvaluatorActivations, WorkOnIntegersWhereTheDefinitionDoes) {
    OneNode("Relu", 14).list({-2, 3}).gives({2}, {0, 3});
    OneNode("Abs").list({-2, INT64_MIN}).gives({2}, {2, static_cast<double>(INT64_MIN)});
    OneNode("Neg").list({-2, 3}).gives({2}, {2, -3});
    OneNode("Sigmoid").list({1}).is_refused("int64, expected floating-point");
    OneNode("Floor").reals({3}, {-1.5, 1.5, 2}).gives({3}, {-2, 1, 2});
    OneNode("Ceil").reals({3}, {-1.5, 1.5, 2}).gives({3}, {-1, 2, 2});
}

TEST(EvaluatorClip, TakesItsBoundsFromAttributesBeforeSet11) {
    OneNode("Clip", 6)
        .reals({3}, {-1, 3, 9})
        .with("min", 0.0)
        .with("max", 6.0)
        .gives({3}, {0, 3, 6});
    OneNode("Clip", 10).reals({2}, {-1, 9}).with("max", 6.0).gives({2}, {-1, 6});
    OneNode("Clip", 11).reals({1}, {1}).with("max", 6.0).is_refused("\"max\" is not supported");
}

TEST(EvaluatorClip, TakesItsBoundsFromInputsFromSet11On) {
    OneNode("Clip").reals({3}, {-1, 3, 9}).reals({}, {0}).reals({}, {6}).gives({3}, {0, 3, 6});
    OneNode("Clip").reals({2}, {-1, 9}).skip().reals({}, {6}).gives({2}, {-1, 6});
    OneNode("Clip").reals({2}, {-1, 9}).reals({1}, {0}).gives({2}, {0, 9});
    OneNode("Clip").reals({2}, {-1, 9}).gives({2}, {-1, 9});
    OneNode("Clip").list({-5, 5}).integers({}, {0}).gives({2}, {0, 5});
    OneNode("Clip").reals({1}, {1}).reals({2}, {0, 1}).is_refused("expected one element");
    OneNode("Clip").reals({1}, {1}).integers({}, {0}).is_refused("of int64");
}

TEST(EvaluatorClip, GivesTheUpperBoundWhereTheLowerIsAbove) {
    OneNode("Clip").reals({3}, {-1, 3, 9}).reals({}, {5}).reals({}, {2}).gives({3}, {2, 2, 2});
}

TEST(EvaluatorArithmetic, BroadcastsFromTheLastAxis) {
    OneNode("Add")
        .reals({2, 1}, {1, 2})
        .reals({3}, {10, 20, 30})
        .gives({2, 3}, {11, 21, 31, 12, 22, 32});
    OneNode("Mul").reals({2, 2}, {1, 2, 3, 4}).reals({}, {2}).gives({2, 2}, {2, 4, 6, 8});
    OneNode("Sub").reals({1}, {1}).reals({1, 2}, {3, 4}).gives({1, 2}, {-2, -3});
    OneNode("Add").reals({2}, {1, 2}).reals({3}, {1, 2, 3}).is_refused("do not broadcast");
    OneNode("Add").reals({0}, {}).reals({1}, {1}).gives({0}, {});
}

TEST(EvaluatorArithmetic, DividesIntegersTowardZero) {
    OneNode("Div").list({7, -7, 7}).list({2, 2, -2}).gives({3}, {3, -3, -3});
    OneNode("Div").list({INT64_MIN}).list({-1}).gives({1}, {static_cast<double>(INT64_MIN)});
    OneNode("Div").list({1}).list({0}).is_refused("divided by 0");
    OneNode("Div").reals({1}, {1}).reals({1}, {0}).gives({1}, {ENDLESS});
}

TEST(EvaluatorArithmetic, WrapsIntegersAround) {
    OneNode("Add").list({INT64_MAX}).list({1}).gives({1}, {static_cast<double>(INT64_MIN)});
    OneNode("Sub").list({INT64_MIN}).list({1}).gives({1}, {static_cast<double>(INT64_MAX)});
    OneNode("Mul").list({INT64_MAX}).list({2}).gives({1}, {-2});
}

TEST(EvaluatorArithmetic, DoesNotMixTypes) {
    OneNode("Add").reals({1}, {1}).list({1}).is_refused("double and int64");
    OneNode("Add").list({1}).integers({1}, {1}, ElementType::Int32).is_refused("int64 and int32");
    OneNode("Add").bools({1}, {1}).bools({1}, {1}).is_refused("of bool");
    OneNode("Add").tensor(Tensor::of_floats({1}, {0.5f})).reals({1}, {1}).gives({1}, {1.5});
}

TEST(EvaluatorArithmetic, FoldsAnyNumberOfInputs) {
    OneNode("Sum").reals({1}, {1}).gives({1}, {1});
    OneNode("Sum")
        .reals({2}, {1, 2})
        .reals({1}, {10})
        .reals({2, 1}, {100, 200})
        .gives({2, 2}, {111, 112, 211, 212});
    OneNode("Max").reals({2}, {1, 5}).reals({2}, {3, 4}).reals({1}, {2}).gives({2}, {3, 5});
    OneNode("Min").list({1, 5}).list({3, 4}).gives({2}, {1, 4});
    OneNode("Max")
        .reals({2}, {NOT_A_NUMBER, 1})
        .reals({2}, {1, NOT_A_NUMBER})
        .gives({2}, {NOT_A_NUMBER, NOT_A_NUMBER});
}

TEST(EvaluatorLogic, ComparesAndChooses) {
    OneNode("Equal").list({1, 2}).list({1, 3}).gives({2}, {1, 0});
    OneNode("Greater").reals({2}, {1, NOT_A_NUMBER}).reals({1}, {0}).gives({2}, {1, 0});
    OneNode("Less").reals({2}, {1, 2}).reals({1}, {2}).gives({2}, {1, 0});
    OneNode("And").bools({2}, {1, 1}).bools({2}, {1, 0}).gives({2}, {1, 0});
    OneNode("Or").bools({2}, {0, 0}).bools({2}, {1, 0}).gives({2}, {1, 0});
    OneNode("Not").bools({2}, {0, 1}).gives({2}, {1, 0});
    OneNode("Not").list({0}).is_refused("expected bool");
    OneNode("And").list({0}).bools({1}, {1}).is_refused("expected bool");
    OneNode("Where")
        .bools({2, 1}, {1, 0})
        .reals({2}, {1, 2})
        .reals({}, {9})
        .gives({2, 2}, {1, 2, 9, 9});
    OneNode("Where").bools({2}, {1, 0}).list({1, 2}).list({3, 4}).gives({2}, {1, 4});
    OneNode("Where").list({1}).reals({1}, {1}).reals({1}, {1}).is_refused("the condition");
    OneNode("Where").bools({1}, {1}).list({1}).reals({1}, {1}).is_refused("int64 and double");
}

TEST(EvaluatorPow, TakesIntegerExponents) {
    OneNode("Pow").reals({2}, {2, 9}).list({3, -1}).gives({2}, {8, 1.0 / 9});
    OneNode("Pow").reals({2}, {4, 9}).reals({}, {0.5}).gives({2}, {2, 3});
    OneNode("Pow").list({2}).list({3}).is_refused("floating-point");
}

TEST(EvaluatorCast, TruncatesTowardZero) {
    OneNode("Cast").reals({4}, {1.9, -1.9, 0.5, -0.5}).with("to", 7).gives({4}, {1, -1, 0, 0});
    OneNode("Cast").reals({3}, {0, 0.5, NOT_A_NUMBER}).with("to", 9).gives({3}, {0, 1, 1});
    OneNode("Cast").list({1, 0}).with("to", 1).gives({2}, {1, 0});
    OneNode("Cast").list({3}).with("to", 6).gives({1}, {3});
}

TEST(EvaluatorCast, RefusesWhatDoesNotFit) {
    OneNode("Cast").reals({1}, {1e19}).with("to", 7).is_refused("does not fit int64");
    OneNode("Cast").reals({1}, {NOT_A_NUMBER}).with("to", 6).is_refused("does not fit int32");
    OneNode("Cast").list({256}).with("to", 2).is_refused("does not fit uint8");
    OneNode("Cast").list({-1}).with("to", 13).is_refused("does not fit uint64");
    OneNode("Cast").list({1}).with("to", 8).is_refused("element type 8");
    OneNode("Cast").list({1}).with("to", INT64_MAX).is_refused("is not supported");
    OneNode("Cast").list({1}).is_refused("element type 0");
}

TEST(EvaluatorBatchNormalization, TakesTheRootOfVarianceAndEpsilon) {
    OneNode("BatchNormalization", 9)
        .reals({1, 2, 1, 2}, {1, 2, 3, 4})
        .reals({2}, {2, 1})
        .reals({2}, {10, 20})
        .reals({2}, {1, 3})
        .reals({2}, {3, 0})
        .with("epsilon", 1.0)
        .gives({1, 2, 1, 2}, {10, 11, 20, 21});
}

TEST(EvaluatorBatchNormalization, RefusesToTrain) {
    const auto node = [](int opset) {
        return OneNode("BatchNormalization", opset)
            .reals({1, 1, 1}, {1})
            .reals({1}, {1})
            .reals({1}, {1})
            .reals({1}, {1})
            .reals({1}, {1});
    };
    node(9).outputs({"y", "mean"}).is_refused("training mode");
    node(15).with("training_mode", 1).is_refused("\"training_mode\"");
    node(7).with("spatial", 0).is_refused("\"spatial\"");
    node(9).with("spatial", 1).is_refused("\"spatial\" is not supported");
    OneNode("BatchNormalization")
        .reals({1, 2, 1}, {1, 1})
        .reals({1}, {1})
        .reals({2}, {1, 1})
        .reals({2}, {1, 1})
        .reals({2}, {1, 1})
        .is_refused("input 1 has shape [1], expected [2]");
}

TEST(EvaluatorInstanceNormalization, UsesEachPlanesOwnNumbers) {
    OneNode("InstanceNormalization")
        .reals({1, 2, 2}, {1, 3, 10, 30})
        .reals({2}, {1, 2})
        .reals({2}, {0, 5})
        .with("epsilon", 0.0)
        .gives({1, 2, 2}, {-1, 1, 3, 7}, 1e-14);
}

TEST(EvaluatorSoftmax, SubtractsTheMaximum) {
    OneNode("Softmax").reals({1, 2}, {1000, 1000}).gives({1, 2}, {0.5, 0.5});
    OneNode("Softmax").reals({1, 2}, {-1000, -1000}).gives({1, 2}, {0.5, 0.5});
}

TEST(EvaluatorSoftmax, HasItsAxisElsewhereBeforeSet13) {
    const auto softmax = [](int opset) {
        return OneNode("Softmax", opset).reals({2, 2, 1}, {0, 0, 0, 0});
    };
    softmax(12).gives({2, 2, 1}, {0.5, 0.5, 0.5, 0.5});
    softmax(13).gives({2, 2, 1}, {1, 1, 1, 1});
    softmax(12).with("axis", 0).gives({2, 2, 1}, {0.25, 0.25, 0.25, 0.25});
    softmax(13).with("axis", 0).gives({2, 2, 1}, {0.5, 0.5, 0.5, 0.5});
    softmax(12).with("axis", -1).gives({2, 2, 1}, {1, 1, 1, 1});
    softmax(13).with("axis", 3).is_refused("axis 3");
}

TEST(EvaluatorGemm, ScalesTheProductAndTheAddend) {
    const auto gemm = [](int opset = 13) {
        return OneNode("Gemm", opset).reals({1, 2}, {1, 2}).reals({2, 2}, {1, 2, 3, 4});
    };
    gemm().gives({1, 2}, {7, 10});
    gemm().reals({2}, {1, 2}).with("alpha", 2.0).with("beta", -1.0).gives({1, 2}, {13, 18});
    gemm().with("transB", 1).gives({1, 2}, {5, 11});
    gemm().reals({}, {1}).gives({1, 2}, {8, 11});
    gemm().reals({2, 1}, {1, 2}).is_refused("expected at most [1, 2]");
    gemm().reals({3}, {1, 2, 3}).is_refused("do not broadcast");
    gemm().with("transA", 1).is_refused("do not multiply");
    gemm(10).is_refused("has 2 inputs, expected 3");
    OneNode("Gemm").reals({2}, {1, 2}).reals({2, 1}, {1, 1}).is_refused("expected a matrix");
}

TEST(EvaluatorMatMul, TakesVectorsOnBothSides) {
    OneNode("MatMul").reals({2}, {1, 2}).reals({2}, {3, 4}).gives({}, {11});
    OneNode("MatMul").reals({2}, {1, 2}).reals({2, 2}, {1, 2, 3, 4}).gives({2}, {7, 10});
    OneNode("MatMul").reals({2, 2}, {1, 2, 3, 4}).reals({2}, {1, 2}).gives({2}, {5, 11});
    OneNode("MatMul").reals({}, {1}).reals({1}, {1}).is_refused("scalar");
}

TEST(EvaluatorMatMul, BroadcastsStacks) {
    OneNode("MatMul")
        .reals({2, 1, 1, 2}, {1, 2, 3, 4})
        .reals({2, 2, 1}, {1, 10, 100, 1000})
        .gives({2, 2, 1, 1}, {21, 2100, 43, 4300});
    OneNode("MatMul").reals({1, 2}, {1, 2}).reals({3, 1}, {1, 2, 3}).is_refused("do not multiply");
    OneNode("MatMul").reals({0, 2}, {}).reals({2, 1}, {1, 2}).gives({0, 1}, {});
    OneNode("MatMul").reals({1, 0}, {}).reals({0, 1}, {}).gives({1, 1}, {0});
}

}  // namespace
