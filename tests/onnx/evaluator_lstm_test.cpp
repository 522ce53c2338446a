// One unit of an LSTM, by its equations.
#include <gtest/gtest.h>

#include <cmath>

#include "onnx/one_node.h"

namespace {

using namespace onnx_test;

double sigmoid(double x) {
    return 1 / (1 + std::exp(-x));
}

// A weight for each gate, all different, so that an exchange shows.
const Numbers W = {0.1, 0.2, 0.3, 0.4};  // input, output, forget, cell
const Numbers R = {-0.5, 0.6, -0.7, 0.8};
const Numbers B = {1, -1, 0.5, -0.5, 0.25, 0.75, -0.25, 1.25};  // of the inputs, then of the state
const Numbers P = {0.3, -0.4, 0.9};                             // input, output, forget

struct State {
    double h = 0;
    double c = 0;
};

struct Options {
    bool bias = true;
    bool peepholes = false;
    double clip = ENDLESS;
    bool coupled = false;
};

State next(double x, const State& from, const Options& options = {}) {
    const auto sum = [&](size_t gate) {
        return W[gate] * x + R[gate] * from.h + (options.bias ? B[gate] + B[gate + 4] : 0);
    };
    const auto peep = [&](size_t gate, double c) { return options.peepholes ? P[gate] * c : 0; };
    const auto clip = [&](double v) { return std::min(std::max(v, -options.clip), options.clip); };
    const double i = sigmoid(clip(sum(0) + peep(0, from.c)));
    const double f = options.coupled ? 1 - i : sigmoid(clip(sum(2) + peep(2, from.c)));
    State to;
    to.c = f * from.c + i * std::tanh(clip(sum(3)));
    to.h = sigmoid(clip(sum(1) + peep(1, to.c))) * std::tanh(clip(to.c));
    return to;
}

OneNode lstm(const Numbers& frames, int opset = 13) {
    return OneNode("LSTM", opset)
        .reals({static_cast<int64_t>(frames.size()), 1, 1}, frames)
        .reals({1, 4, 1}, W)
        .reals({1, 4, 1}, R);
}

TEST(EvaluatorLstm, HasItsGatesInTheOrderInputOutputForgetCell) {
    const State one = next(2, {});
    const State two = next(-3, one);
    lstm({2, -3}).reals({1, 8}, B).gives({2, 1, 1, 1}, {one.h, two.h}, 1e-15);
}

TEST(EvaluatorLstm, StartsFromTheGivenState) {
    OneNode node = lstm({2}).skip().skip().reals({1, 1, 1}, {0.3}).reals({1, 1, 1}, {-0.6});
    node.outputs({"y", "h", "c"});
    Options options;
    options.bias = false;
    const State to = next(2, {0.3, -0.6}, options);
    EXPECT_NEAR(node.result("h").number(0), to.h, 1e-15);
    EXPECT_NEAR(node.values.at("c").number(0), to.c, 1e-15);
    EXPECT_EQ(node.values.at("y").number(0), node.values.at("h").number(0));
}

TEST(EvaluatorLstm, LooksThroughPeepholes) {
    Options options;
    options.peepholes = true;
    const State from = {0.3, -0.6};
    const State to = next(2, from, options);
    lstm({2})
        .reals({1, 8}, B)
        .skip()
        .reals({1, 1, 1}, {from.h})
        .reals({1, 1, 1}, {from.c})
        .reals({1, 3}, P)
        .gives({1, 1, 1, 1}, {to.h}, 1e-15);
}

TEST(EvaluatorLstm, ClipsWhatEntersItsFunctions) {
    Options options;
    options.clip = 0.25;
    const State one = next(2, {}, options);
    const State two = next(-30, one, options);
    lstm({2, -30}).reals({1, 8}, B).with("clip", 0.25).gives({2, 1, 1, 1}, {one.h, two.h}, 1e-15);
}

TEST(EvaluatorLstm, CouplesItsGates) {
    Options options;
    options.coupled = true;
    const State to = next(-3, next(2, {}, options), options);
    OneNode node = lstm({2, -3}).reals({1, 8}, B).with("input_forget", 1).outputs({"", "h"});
    EXPECT_NEAR(node.result("h").number(0), to.h, 1e-15);
}

TEST(EvaluatorLstm, RunsBackwardOverEachSequencesOwnLength) {
    // Two sequences, (2, -3) and (5): the second direction starts at their ends.
    OneNode node("LSTM");
    node.reals({2, 2, 1}, {2, 5, -3, 99}).reals({1, 4, 1}, W).reals({1, 4, 1}, R);
    node.reals({1, 8}, B).integers({2}, {2, 1}, ElementType::Int32).with("direction", "reverse");
    node.outputs({"y", "h"});
    const State last = next(-3, {});
    const State first = next(2, last);
    const State alone = next(5, {});
    node.gives({2, 1, 2, 1}, {first.h, alone.h, last.h, 0}, 1e-15);
    EXPECT_EQ(node.values.at("h").numbers(),
              (Numbers{node.values.at("y").number(0), node.values.at("y").number(1)}));
}

TEST(EvaluatorLstm, TakesNamedFunctions) {
    OneNode node = lstm({-2}).reals({1, 8}, B);
    node.with_texts("activations", {"sigmoid", "Relu", "TANH"});
    const double candidate = std::max(0.0, -2 * W[3] + B[3] + B[7]);
    const double c = sigmoid(-2 * W[0] + B[0] + B[4]) * candidate;
    node.gives({1, 1, 1, 1}, {sigmoid(-2 * W[1] + B[1] + B[5]) * std::tanh(c)}, 1e-15);
    lstm({1}).with_texts("activations", {"Sigmoid", "Tanh"}).is_refused("2 entries, expected 3");
    lstm({1}).with_texts("activations", {"Sigmoid", "Tanh", "Softsign"}).is_refused("\"Softsign\"");
    lstm({1}).with_numbers("activation_alpha", {0.1}).is_refused("\"activation_alpha\"");
}

TEST(EvaluatorLstm, RefusesWhatDoesNotFit) {
    lstm({1}).with("direction", "bidirectional").is_refused("expected [2, 4, 1]");
    lstm({1}).with("direction", "both").is_refused("\"both\"");
    lstm({1}).with("hidden_size", 2).is_refused("\"hidden_size\" is 2");
    lstm({1}).with("clip", -1.0).is_refused("\"clip\"");
    lstm({1}).with("layout", 0).is_refused("\"layout\" is not supported");
    lstm({1}).reals({1, 4}, {1, 2, 3, 4}).is_refused("input 3 has shape [1, 4]");
    lstm({1}).skip().list({2}).is_refused("has 2 of 1 steps");
    lstm({1}).skip().list({1, 1}).is_refused("sequence lengths have shape [2]");
    OneNode("LSTM")
        .reals({1, 1}, {1})
        .reals({1, 4, 1}, W)
        .reals({1, 4, 1}, R)
        .is_refused("three dimensions");
    OneNode("LSTM")
        .reals({1, 1, 2}, {1, 2})
        .reals({1, 4, 1}, W)
        .reals({1, 4, 1}, R)
        .is_refused("expected [1, 4, 2]");
}

}  // namespace
