// One element of a computed value, by a constant index.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

MadeModel gathered(const Ints& dims, int64_t axis, int64_t index, bool scalar) {
    MadeModel model;
    model.input("x", dims).output("y");
    if (scalar) {
        auto& tensor = *model.graph().add_initializer();
        tensor.set_name("i");
        tensor.set_data_type(onnx::TensorProto::INT64);
        tensor.add_int64_data(index);
    } else {
        model.integers("i", {index});
    }
    model.node("Gather", {"x", "i"}, {"y"}, {{"axis", axis}});
    return model;
}

TEST(GatherRewrite, OneIndexIsASliceOfOne) {
    const Ints dims = {1, 3, 4, 5};
    const auto gives = [&](int64_t axis, int64_t index, const Ints& scalar_dims,
                           const Numbers& numbers) {
        for (const bool scalar : {true, false}) {
            SCOPED_TRACE(std::to_string(axis) + ", " + std::to_string(index));
            const Converted result = convert_and_prove(gathered(dims, axis, index, scalar).bytes(),
                                                       {{"x", ascending(dims)}});
            expect_proof(result);
            expect_numbers(result, numbers);
            Ints expected = dims;
            expected[static_cast<size_t>(axis < 0 ? axis + 4 : axis)] = 1;
            EXPECT_EQ(result.conversion.value_dims.at("y"), scalar ? scalar_dims : expected);
        }
    };
    // Channel c, row y, column x is 20 c + 5 y + x.
    Numbers channel;
    for (int i = 40; i < 60; ++i) channel.push_back(i);
    gives(1, 2, {1, 4, 5}, channel);
    gives(-3, -1, {1, 4, 5}, channel);
    gives(2, -4, {1, 3, 5}, {0, 1, 2, 3, 4, 20, 21, 22, 23, 24, 40, 41, 42, 43, 44});
    gives(3, -1, {1, 3, 4}, {4, 9, 14, 19, 24, 29, 34, 39, 44, 49, 54, 59});
    Numbers all;
    for (int i = 0; i < 60; ++i) all.push_back(i);
    gives(0, -1, {3, 4, 5}, all);
}

TEST(GatherRewrite, OfOtherDivisions) {
    const auto gives = [](const Ints& dims, int64_t axis, int64_t index, const Numbers& numbers) {
        SCOPED_TRACE(modelkit::onnx::text_of(dims));
        const Converted result =
            convert_and_prove(gathered(dims, axis, index, true).bytes(), {{"x", ascending(dims)}});
        expect_proof(result);
        expect_numbers(result, numbers);
    };
    gives({7}, 0, -2, {5});
    gives({1, 7}, 1, 3, {3});
    gives({3, 2}, 0, 1, {2, 3});
    gives({3, 1, 2}, 0, -1, {4, 5});
    gives({1, 3, 2}, 1, -1, {4, 5});
    gives({1, 3, 2}, 2, 0, {0, 2, 4});
    // Rows and columns of a picture of one channel.
    gives({1, 1, 4, 3}, 2, 1, {3, 4, 5});
    gives({1, 1, 4, 3}, 2, -1, {9, 10, 11});
    gives({1, 1, 4, 3}, 3, 0, {0, 3, 6, 9});
}

TEST(GatherRewrite, ASliceOfOneRowOfOneChannel) {
    for (const int64_t step : {1, 4}) {
        MadeModel model;
        model.input("x", {1, 1, 4, 3}).output("y").integers("from", {2}).integers("to", {3});
        model.integers("axes", {-2}).integers("steps", {step});
        model.node("Slice", {"x", "from", "to", "axes", "steps"}, {"y"});
        const Converted result = convert_and_prove(model.bytes(), {{"x", ascending({1, 1, 4, 3})}});
        expect_proof(result);
        expect_numbers(result, {6, 7, 8});
    }
}

TEST(GatherRewrite, OfTheLastStateAndTheLastStep) {
    for (const char* direction : {"forward", "bidirectional"}) {
        for (const int64_t index : {0, -1}) {
            SCOPED_TRACE(direction + std::to_string(index));
            const int64_t count = direction == std::string("forward") ? 1 : 2;
            MadeModel model;
            model.input("x", {5, 1, 3}).output("a").output("b");
            model.random("w", {count, 16, 3}, 1, 0.5).random("r", {count, 16, 4}, 2, 0.5);
            model.node("LSTM", {"x", "w", "r"}, {"y", "h"},
                       {{"hidden_size", 4}, {"direction", direction}});
            auto& tensor = *model.graph().add_initializer();
            tensor.set_name("i");
            tensor.set_data_type(onnx::TensorProto::INT64);
            tensor.add_int64_data(index);
            model.node("Gather", {"h", "i"}, {"a"}, {{"axis", 0}});
            model.node("Gather", {"y", "i"}, {"b"}, {{"axis", 0}});
            expect_proof(convert_and_prove(model.bytes()));
        }
    }
}

// As operator set 9 writes it.
TEST(GatherRewrite, ASliceOfOneGivesTheSame) {
    for (const int64_t index : {0, 1}) {
        MadeModel model(9);
        model.input("x", {5, 1, 3}).output("y").random("w", {2, 16, 3}, 1, 0.5);
        model.random("r", {2, 16, 4}, 2, 0.5);
        model.node("LSTM", {"x", "w", "r"}, {"", "h"},
                   {{"hidden_size", 4}, {"direction", "bidirectional"}});
        model.node("Slice", {"h"}, {"s"},
                   {{"axes", Ints{0}}, {"starts", Ints{index}}, {"ends", Ints{index + 1}}});
        model.node("Squeeze", {"s"}, {"y"}, {{"axes", Ints{0}}});
        expect_proof(convert_and_prove(model.bytes()));
    }
}

TEST(GatherRewrite, OtherIndicesAreRefusedByAxisAndIndices) {
    const auto refused = [](const MadeModel& model, const std::string& reason) {
        expect_refusal(convert_only(model.bytes()), "node \"y\" (Gather)",
                       "one constant index along axis 1 of [1, 3, 4, 5] expected, found " + reason);
    };
    MadeModel several;
    several.input("x", {1, 3, 4, 5}).output("y").integers("i", {0, 2});
    several.node("Gather", {"x", "i"}, {"y"}, {{"axis", 1}});
    refused(several, "2 of int64: [0, 2]");
    refused(gathered({1, 3, 4, 5}, 1, 3, true), "3");
    refused(gathered({1, 3, 4, 5}, 1, -4, false), "-4");
    MadeModel computed;
    computed.input("x", {1, 3, 4, 5}).input("z", {1, 3}).output("y");
    computed.node("Gather", {"x", "z"}, {"y"}, {{"axis", 1}});
    refused(computed, "computed indices");
}

}  // namespace
