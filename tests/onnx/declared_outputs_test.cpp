// What a file says of its outputs' types and shapes, against what its nodes give.
#include <gtest/gtest.h>

#include <string>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

constexpr int FLOAT = onnx::TensorProto::FLOAT;

// Relu of [1, 3, 8, 8].
MadeModel declared(const Ints& dims, int type = FLOAT, const Ints& input = {1, 3, 8, 8}) {
    MadeModel model;
    model.input("x", input).output("y", dims, type).node("Relu", {"x"}, {"y"});
    return model;
}

TEST(DeclaredOutput, ThatContradictsTheGraphIsRefused) {
    for (const Ints& dims : {Ints{1, 9, 8, 8}, Ints{192}, Ints{1, 3, 8}, Ints{1, 3, 8, 8, 1},
                             Ints{1, 3, 64}, Ints{2, 3, 8, 8}, Ints{-1, 3, 8, 7}, Ints{}}) {
        const std::string text = modelkit::onnx::text_of(dims);
        SCOPED_TRACE(text);
        expect_refusal(
            convert_only(declared(dims).bytes()), "the output \"y\": ",
            "a declared shape of [1, 3, 8, 8], which the graph gives, expected, found " + text);
    }
    expect_refusal(
        convert_only(declared({1, 3, 8, 8}, onnx::TensorProto::INT64).bytes()),
        "the output \"y\": ", "a declared type of numbers with a fraction expected, found int64");
    expect_refusal(convert_only(declared({1, 3, 8, 8}, onnx::TensorProto::BOOL).bytes()),
                   "the output \"y\": ", "found bool");
}

TEST(DeclaredOutput, ThatFitsOrLeavesSizesOpenIsConverted) {
    for (const Ints& dims :
         {Ints{1, 3, 8, 8}, Ints{-1, 3, 8, 8}, Ints{-1, -1, -1, -1}, Ints{1, 3, -1, 8}}) {
        SCOPED_TRACE(modelkit::onnx::text_of(dims));
        expect_proof(convert_and_prove(declared(dims).bytes()));
        expect_proof(convert_and_prove(declared(dims, FLOAT, {-1, 3, 8, 8}).bytes()));
    }
    // A type without a shape, and nothing at all.
    MadeModel typed = declared({});
    typed.graph().mutable_output(0)->mutable_type()->mutable_tensor_type()->clear_shape();
    expect_proof(convert_and_prove(typed.bytes()));
    expect_proof(convert_and_prove(one_node("Relu", {1, 3, 8, 8}).bytes()));
}

TEST(DeclaredOutput, IsCheckedForEachOutput) {
    MadeModel model;
    model.input("x", {1, 3, 8, 8}).output("a", {1, 3, 8, 8}).output("b", {1, 3, 4, 5});
    model.node("Relu", {"x"}, {"a"}).node("GlobalMaxPool", {"x"}, {"b"});
    expect_refusal(convert_only(model.bytes()), "the output \"b\": ",
                   "a declared shape of [1, 3, 1, 1], which the graph gives, expected, found "
                   "[1, 3, 4, 5]");
}

}  // namespace
