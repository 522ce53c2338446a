// Weights of which halves leave little are refused: no run of the model would tell.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/made_model.h"

namespace {

using namespace onnx_test;
using Ints = std::vector<int64_t>;

MadeModel convolution_of(double largest) {
    MadeModel model;
    model.input("x", {1, 3, 8, 8}).output("y");
    model.random("w", {16, 3, 3, 3}, 1, largest).random("b", {16}, 2, 0.5);
    model.node("Conv", {"x", "w", "b"}, {"y"});
    model.graph().mutable_node(0)->set_name("/stem/conv");
    return model;
}

void expect_refusal(MadeModel& model, const std::vector<std::string>& parts,
                    const ConvertOptions& options = {}) {
    const Converted converted = convert_only(model.bytes(), options);
    ASSERT_FALSE(converted.status) << "was converted";
    for (const std::string& part : parts) {
        EXPECT_NE(converted.status.message().find(part), std::string::npos)
            << "\"" << part << "\" is not in: " << converted.status.message();
    }
}

// All outputs are 0 in the model, and noise of half a step explains it.
TEST(VanishingWeights, AreRefusedWithNodeLayerAndFigures) {
    MadeModel model;
    model.input("x", {1, 3, 8, 8}).output("y");
    model.random("w", {4, 3, 1, 1}, 1, 1e-8).random("v", {2, 4, 1, 1}, 2, 1e4);
    model.node("Conv", {"x", "w"}, {"c"}).node("Relu", {"c"}, {"r"});
    model.node("Conv", {"r", "v"}, {"y"});
    model.graph().mutable_node(0)->set_name("/stem/conv");
    for (const bool with_proof : {true, false}) {
        ConvertOptions options;
        options.keep_rounded = with_proof;
        expect_refusal(model,
                       {"node \"/stem/conv\" (Conv)", "layer 1 (Conv2D)", "at most 6.2500 %",
                        "found 100.0000 %", "scale the weights up"},
                       options);
    }
}

// Of numbers spread evenly up to s, halves 2^-24 apart take 2^-25 / s: a sixteenth at 2^-21.
TEST(VanishingWeights, AreThoseThatLoseASixteenth) {
    MadeModel kept = convolution_of(0x1p-20);
    expect_proof(convert_and_prove(kept.bytes()));
    MadeModel lost = convolution_of(0x1p-22);
    // Whatever the bias is: it is no remainder of the weights.
    expect_refusal(lost, {"node \"/stem/conv\" (Conv)", "expected, found 12."});
}

TEST(VanishingWeights, AreLookedForInEveryLayerWithWeights) {
    struct Case {
        const char* type;
        Ints input;
        Ints weights;
    };
    const std::vector<Case> cases = {
        {"Conv", {1, 4, 8, 8}, {4, 1, 3, 3}}, {"ConvTranspose", {1, 4, 8, 8}, {4, 2, 2, 2}},
        {"MatMul", {1, 8}, {8, 4}},           {"MatMul", {1, 7}, {7, 3}},
        {"Mul", {1, 4, 8, 8}, {1, 4, 1, 1}},  {"Mul", {1, 1, 8, 8}, {1}}};
    for (const Case& each : cases) {
        SCOPED_TRACE(each.type + std::string(" of ") + std::to_string(each.weights.back()));
        for (const double largest : {1e-12, 1.0}) {
            MadeModel model;
            model.input("x", each.input).output("y").random("w", each.weights, 1, largest);
            model.node(each.type, {"x", "w"}, {"y"});
            if (each.weights.size() > 1 && each.weights[1] == 1 && each.input[1] == 4 &&
                each.type == std::string("Conv")) {
                model.graph().mutable_node(0)->add_attribute()->set_name("group");
                auto& group = *model.graph().mutable_node(0)->mutable_attribute(0);
                group.set_type(onnx::AttributeProto::INT);
                group.set_i(4);
            }
            if (largest == 1.0) {
                const Converted converted = convert_only(model.bytes());
                EXPECT_TRUE(converted.status) << converted.status.message();
            } else {
                expect_refusal(model, {"scale the weights up"});
            }
        }
    }
}

TEST(VanishingWeights, OfAnLstmAreThoseOfBothProducts) {
    for (const double largest : {1e-9, 0.5}) {
        MadeModel model;
        model.input("x", {5, 1, 4}).output("y");
        model.random("w", {1, 12, 4}, 1, largest).random("r", {1, 12, 3}, 2, largest);
        model.random("b", {1, 24}, 3, 0.5);
        model.node("LSTM", {"x", "w", "r", "b"}, {"y"}, {{"hidden_size", 3}});
        if (largest == 0.5) {
            const Converted converted = convert_only(model.bytes());
            EXPECT_TRUE(converted.status) << converted.status.message();
        } else {
            expect_refusal(model, {"(LSTM)", "found 100.0000 %", "scale the weights up"});
        }
    }
}

// A layer that is off, biases of any size, and channels that have died among others.
TEST(VanishingWeights, AreNotZerosBiasesOrSingleChannels) {
    MadeModel off = convolution_of(1.0);
    off.graph().mutable_initializer(0)->set_raw_data(std::string(16 * 3 * 3 * 3 * 4, '\0'));
    expect_proof(convert_and_prove(off.bytes()));

    MadeModel small_bias;
    small_bias.input("x", {1, 3, 8, 8}).output("y");
    small_bias.random("w", {16, 3, 3, 3}, 1, 0.3).random("b", {16}, 2, 1e-10);
    small_bias.node("Conv", {"x", "w", "b"}, {"y"});
    expect_proof(convert_and_prove(small_bias.bytes()));

    MadeModel dead = convolution_of(1.0);
    std::vector<float> weights(16 * 27, 0.25f);
    std::fill(weights.begin() + 27, weights.end(), 1e-20f);
    dead.graph().mutable_initializer(0)->set_raw_data(
        std::string(reinterpret_cast<const char*>(weights.data()), weights.size() * 4));
    expect_proof(convert_and_prove(dead.bytes()));
}

// Among other channels one that is wiped out costs nothing, unless what follows makes it large.
TEST(VanishingWeights, OfOneChannelMatterWhereTheyAreMadeLarge) {
    for (const double factor : {1.0, 2e4}) {
        SCOPED_TRACE(factor);
        MadeModel model;
        model.input("x", {1, 2, 4, 4})
            .output("y")
            .floats("w", {2, 2, 1, 1}, {1e-9f, 1e-9f, 1, 0.5});
        for (const char* name : {"f", "g"}) {
            model.floats(name, {1, 2, 1, 1}, {static_cast<float>(factor), 1.0f});
        }
        model.node("Conv", {"x", "w"}, {"c"}).node("Relu", {"c"}, {"r"});
        model.node("Mul", {"r", "f"}, {"m"}).node("Mul", {"m", "g"}, {"y"});
        const Converted converted = convert_and_prove(model.bytes());
        if (factor == 1.0) {
            expect_proof(converted);
        } else {
            ASSERT_TRUE(converted.status) << converted.status.message();
            const auto& proof = converted.proof.outputs.at(0);
            EXPECT_GT(proof.by_halves.maximum, proof.halves_bound) << "the lost channel passed";
            EXPECT_FALSE(converted.proof.holds());
        }
    }
}

}  // namespace
