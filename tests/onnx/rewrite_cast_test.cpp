// Cast: among numbers with a fraction no layer, with a note where digits would go; all else
// refused.
#include <gtest/gtest.h>

#include <string>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;
using Type = onnx::TensorProto;

MadeModel cast_of_a_convolution(int type, bool as_output) {
    MadeModel model;
    model.input("x", {1, 3, 4, 4}).output(as_output ? "cast" : "y").random("w", {4, 3, 1, 1}, 1);
    model.node("Conv", {"x", "w"}, {"c"}).node("Cast", {"c"}, {"cast"}, {{"to", type}});
    if (!as_output) model.node("Relu", {"cast"}, {"y"});
    return model;
}

TEST(CastRewrite, AmongFloatsAndDoublesThereIsNoLayerAndNothingToTell) {
    for (const int type : {Type::FLOAT, Type::DOUBLE}) {
        for (const bool as_output : {false, true}) {
            const Converted result =
                convert_and_prove(cast_of_a_convolution(type, as_output).bytes());
            expect_proof(result);
            EXPECT_EQ(result.kinds(), (Kinds{"Conv2D"}));
            EXPECT_TRUE(result.conversion.notes.empty());
        }
    }
}

TEST(CastRewrite, ToFewerDigitsThereIsANoteThatNothingIsRounded) {
    for (const int type : {Type::FLOAT16, Type::BFLOAT16}) {
        for (const bool as_output : {false, true}) {
            const Converted result =
                convert_and_prove(cast_of_a_convolution(type, as_output).bytes());
            expect_proof(result);
            EXPECT_EQ(result.kinds(), (Kinds{"Conv2D"}));
            ASSERT_EQ(result.conversion.notes.size(), 1u);
            expect_note(result, std::string("node \"cast\": the cast to ") +
                                    (type == Type::FLOAT16 ? "float16" : "bfloat16") +
                                    " is left out, its rounding is not done");
        }
    }
}

TEST(CastRewrite, ToIntegersOfWhatIsComputedIsRefused) {
    const std::pair<int, const char*> types[] = {
        {Type::UINT8, "uint8"},   {Type::INT8, "int8"},
        {Type::UINT16, "uint16"}, {Type::INT16, "int16"},
        {Type::INT32, "int32"},   {Type::INT64, "int64"},
        {Type::BOOL, "bool"},     {Type::UINT32, "uint32"},
        {Type::UINT64, "uint64"}, {Type::STRING, "element type 8"}};
    for (const auto& [type, name] : types) {
        MadeModel model;
        model.input("x", {1, 3, 4, 4}).output("y");
        model.node("Cast", {"x"}, {"whole"}, {{"to", type}});
        model.node("Cast", {"whole"}, {"y"}, {{"to", static_cast<int>(Type::FLOAT)}});
        expect_refusal(convert_only(model.bytes()), "node \"whole\" (Cast)",
                       std::string("the engines have no ") + name);
    }
}

TEST(CastRewrite, OfAShapeItIsFolded) {
    MadeModel model;
    model.input("x", {1, 3, 4, 4}).output("y").node("Shape", {"x"}, {"s"});
    model.node("Cast", {"s"}, {"f"}, {{"to", static_cast<int>(Type::FLOAT)}});
    model.node("Cast", {"f"}, {"i"}, {{"to", static_cast<int>(Type::INT64)}});
    model.node("Reshape", {"x", "i"}, {"r"}).node("Relu", {"r"}, {"y"});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (Kinds{"Activation"}));
}

}  // namespace
