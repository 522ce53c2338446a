// Time steps: what becomes of their rows where values of several lengths meet. The proof compares
// each with the evaluator, which shares no code with the layers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

void expect_converted(const MadeModel& model, const Kinds& kinds = {}) {
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    if (!kinds.empty()) {
        EXPECT_EQ(result.kinds(), kinds);
    }
}

// From `from`, which has `features` numbers a step, to `to`.
void add_lstm(MadeModel& model, const std::string& from, int64_t features, int64_t hidden,
              const std::string& to) {
    model.random("w of " + to, {1, 4 * hidden, features}, 1, 0.5);
    model.random("r of " + to, {1, 4 * hidden, hidden}, 2, 0.5);
    model.random("b of " + to, {1, 8 * hidden}, 3, 0.5);
    model.node("LSTM", {from, "w of " + to, "r of " + to, "b of " + to}, {to},
               {{"hidden_size", hidden}});
}

TEST(LstmOfOneFeature, TakesTheStepsFromTheInput) {
    for (const int64_t steps : {1, 6}) {
        MadeModel model;
        model.input("x", {steps, 1, 1}).output("y");
        add_lstm(model, "x", 1, 8, "y");
        expect_converted(model, {"LSTM"});
        // The batch first, as exporters turn it.
        MadeModel turned;
        turned.input("x", {1, steps, 1}).output("y");
        turned.node("Transpose", {"x"}, {"t"}, {{"perm", Ints{1, 0, 2}}});
        add_lstm(turned, "t", 1, 8, "y");
        expect_converted(turned, {"LSTM"});
    }
}

TEST(LstmOfOneFeature, TakesTheStepsFromALayer) {
    MadeModel model;
    model.input("x", {6, 1, 1}).output("y").node("Relu", {"x"}, {"r"});
    add_lstm(model, "r", 1, 4, "y");
    expect_converted(model);
    MadeModel linear;
    linear.input("x", {1, 5, 1}).output("y").random("w", {1, 8}, 5);
    linear.node("MatMul", {"x", "w"}, {"y"});
    expect_converted(linear);
}

TEST(LinearOverSteps, ChainsThroughAnyNumberOfValues) {
    for (const int64_t between : {1, 2, 16, 30, 65}) {
        for (const Ints& dims : {Ints{1, 6, 64}, Ints{6, 1, 64}, Ints{6, 64}}) {
            SCOPED_TRACE(std::to_string(between) + " of " + modelkit::onnx::text_of(dims));
            MadeModel model;
            model.input("x", dims).output("y").random("v", {64, between}, 1, 0.25);
            model.random("b", {between}, 2).random("w", {between, 10}, 3, 0.25);
            model.node("MatMul", {"x", "v"}, {"m"}).node("Add", {"m", "b"}, {"a"});
            model.node("Relu", {"a"}, {"r"}).node("MatMul", {"r", "w"}, {"y"});
            expect_converted(model);
        }
    }
}

TEST(LinearOverSteps, InFrontOfAnLstm) {
    for (const int64_t between : {3, 9, 30}) {
        MadeModel model;
        model.input("x", {5, 1, 8}).output("y").random("v", {8, between}, 4, 0.5);
        model.node("MatMul", {"x", "v"}, {"m"});
        add_lstm(model, "m", between, 6, "y");
        expect_converted(model);
    }
}

TEST(LinearOverSteps, AMaskOfAnyNumberOfValuesIsMultiplied) {
    for (const int64_t values : {64, 65, 257}) {
        for (const bool batch_first : {false, true}) {
            SCOPED_TRACE(std::to_string(values) + (batch_first ? ", batch first" : ""));
            MadeModel model;
            const Ints dims = batch_first ? Ints{1, 4, values} : Ints{4, 1, values};
            model.input("x", dims).output("y").integers("axis", {1});
            std::string steps = "x";
            if (batch_first) {
                model.node("Transpose", {"x"}, {"turned"}, {{"perm", Ints{1, 0, 2}}});
                steps = "turned";
            }
            add_lstm(model, steps, values, 6, "l");
            model.node("Squeeze", {"l", "axis"}, {"s"}).random("v", {6, values}, 4);
            std::string hidden = "s";
            if (batch_first) {
                model.node("Transpose", {"s"}, {"back"}, {{"perm", Ints{1, 0, 2}}});
                hidden = "back";
            }
            model.node("MatMul", {hidden, "v"}, {"m"}).node("Sigmoid", {"m"}, {"mask"});
            model.node("Mul", {"x", "mask"}, {"y"});
            expect_converted(model);
        }
    }
}

// The engine's floats for depth multipliers would do for neither of them.
TEST(LinearOverSteps, OfManyValues) {
    MadeModel model;
    model.input("x", {1, 10, 257}).output("y").random("v", {257, 100}, 1, 0.1);
    model.random("w", {100, 257}, 2, 0.1).random("b", {100}, 3).random("c", {257}, 4);
    model.node("MatMul", {"x", "v"}, {"m"})
        .node("Add", {"m", "b"}, {"a"})
        .node("Relu", {"a"}, {"r"});
    model.node("MatMul", {"r", "w"}, {"n"}).node("Add", {"n", "c"}, {"y"});
    expect_converted(model);
}

// 2^26 copies of rows are not listed before that is asked.
TEST(LinearOverSteps, OfMoreOutputsThanChannelsMayMoveIsRefused) {
    MadeModel model;
    model.input("x", {1, 1024, 1}).output("y").random("w", {1, 65535}, 1);
    model.node("MatMul", {"x", "w"}, {"y"});
    expect_refusal(convert_only(model.bytes()), "node \"y\" (MatMul)",
                   "at most 16777216 weights to move channels expected, found 67107840 channels of "
                   "1024");
}

TEST(DepthMultiplier, BeyondTheEnginesFloatsIsRefused) {
    MadeModel model;
    model.input("x", {1, 2, 4, 4}).output("y").random("w", {2000, 1, 3, 3}, 1);
    model.node("Conv", {"x", "w"}, {"y"}, {{"group", 2}});
    expect_refusal(convert_only(model.bytes()), "node \"y\" (Conv)",
                   "at most 16777216 floats of the CPU engine for depth multipliers in all layers "
                   "expected, found 17982000");
    ConvertOptions gpu;
    gpu.engines = Engines::Gpu;
    const Converted other = convert_only(model.bytes(), gpu);
    EXPECT_EQ(other.status.message().find("floats of the CPU engine"), std::string::npos);
}

TEST(LinearOverSteps, RowsOfTooManyNumbersAreCounted) {
    MadeModel more;
    more.input("x", {1, 60, 30}).output("y").random("v", {30, 500}, 1).random("w", {500, 4}, 2);
    more.node("MatMul", {"x", "v"}, {"m"}).node("Relu", {"m"}, {"r"});
    more.node("MatMul", {"r", "w"}, {"y"});
    expect_refusal(convert_only(more.bytes()), "node \"y\" (MatMul)",
                   "at most 16777216 weights to make 60 rows of 500 numbers of channels expected, "
                   "found 31860000");
}

}  // namespace
