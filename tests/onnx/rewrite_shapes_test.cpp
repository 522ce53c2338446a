// Sizes that a graph computes from the shape of its input: in floats, as the types of the nodes
// say, by the converter and by the evaluator alike.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "onnx/one_node.h"
#include "onnx/rewritten.h"

namespace {

using onnx_test::convert_and_prove;
using onnx_test::Converted;
using onnx_test::Dims;
using onnx_test::expect_numbers;
using onnx_test::expect_proof;
using onnx_test::Ints;
using onnx_test::MadeModel;
using onnx_test::OneNode;
using onnx_test::Tensor;
using onnx_test::With;

constexpr int FLOAT = onnx::TensorProto::FLOAT;
constexpr int DOUBLE = onnx::TensorProto::DOUBLE;
constexpr int INT64 = onnx::TensorProto::INT64;

std::vector<float> ascending(int64_t count) {
    std::vector<float> values(static_cast<size_t>(count));
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i);
    return values;
}

// One number of the shape of x as a float.
void add_side(MadeModel& model, const std::string& name, int64_t axis) {
    model.integers("axis of " + name, {axis});
    model.node("Gather", {"shape", "axis of " + name}, {name + " whole"});
    model.node("Cast", {name + " whole"}, {name}, {{"to", FLOAT}});
}

TEST(ShapeChain, SidesAreDividedAsFloats) {
    // 3 rows by 2 columns: 1.5, and 1 among integers.
    MadeModel model;
    model.input("x", {1, 1, 3, 2}).output("y").node("Shape", {"x"}, {"shape"});
    add_side(model, "h", 2);
    add_side(model, "w", 3);
    model.node("Div", {"h", "w"}, {"ratio"}).node("Mul", {"x", "ratio"}, {"y"});
    const Converted result =
        convert_and_prove(model.bytes(), {{"x", Tensor::of_floats({1, 1, 3, 2}, ascending(6))}});
    expect_proof(result);
    expect_numbers(result, {0, 1.5, 3, 4.5, 6, 7.5});
}

// What exporters write for a scale factor that is applied to the size first.
MadeModel scaled_size(int64_t side, float factor, int opset) {
    MadeModel model(opset);
    model.input("x", {1, 1, side, side}).output("y").node("Shape", {"x"}, {"shape"});
    model.floats("factor", {}, {factor}).integers("first", {0}).integers("second", {2});
    add_side(model, "h", 2);
    model.node("Mul", {"h", "factor"}, {"product"});
    model.node("Cast", {"product"}, {"product again"}, {{"to", FLOAT}});
    model.node("Floor", {"product again"}, {"floor"});
    model.node("Cast", {"floor"}, {"size"}, {{"to", INT64}});
    model.node("Slice", {"shape", "first", "second"}, {"others"});
    model.node("Concat", {"others", "size", "size"}, {"sizes"}, {{"axis", 0}});
    model.floats("none", {0}, {});
    model.node("Resize", {"x", "none", "none", "sizes"}, {"y"},
               {{"mode", "nearest"},
                {"coordinate_transformation_mode", "asymmetric"},
                {"nearest_mode", "floor"}});
    return model;
}

TEST(ShapeChain, AResizeByComputedSizesIsOneBySizes) {
    const struct {
        int64_t side;
        float factor;
        std::vector<int> lines;
    } cases[] = {
        // 10 * 0.7f is 7 in floats and less in doubles.
        {10, 0.7f, {0, 1, 2, 4, 5, 7, 8}},
        {10, 0.5f, {0, 2, 4, 6, 8}},
        {5, 1.2f, {0, 0, 1, 2, 3, 4}},
    };
    for (const auto& each : cases) {
        for (const int opset : {11, 13}) {
            SCOPED_TRACE(std::to_string(each.factor) + " in " + std::to_string(opset));
            const int64_t side = each.side;
            const Converted result = convert_and_prove(
                scaled_size(side, each.factor, opset).bytes(),
                {{"x", Tensor::of_floats({1, 1, side, side}, ascending(side * side))}});
            expect_proof(result);
            std::vector<double> expected;
            for (const int y : each.lines) {
                for (const int x : each.lines) {
                    expected.push_back(static_cast<double>(y * side + x));
                }
            }
            expect_numbers(result, expected);
        }
    }
}

// The end of a slice: floor(10 * 0.7) in the type of the constants.
MadeModel sliced_by_product(int type) {
    MadeModel model;
    model.input("x", {1, 10, 1, 1}).output("y").floats("ten", {1}, {10.0f});
    model.floats("factor", {1}, {0.7f}).integers("first", {0}).integers("axis", {1});
    model.node("Cast", {"ten"}, {"ten cast"}, {{"to", type}});
    model.node("Cast", {"factor"}, {"factor cast"}, {{"to", type}});
    model.node("Mul", {"ten cast", "factor cast"}, {"product"}).node("Floor", {"product"}, {"f"});
    model.node("Cast", {"f"}, {"end"}, {{"to", INT64}});
    model.node("Slice", {"x", "first", "end", "axis"}, {"y"});
    return model;
}

TEST(ConstantArithmetic, IsInFloatsOrInDoublesAsTheTypesSay) {
    for (const int type : {FLOAT, DOUBLE}) {
        SCOPED_TRACE(type);
        const Converted result =
            convert_and_prove(sliced_by_product(type).bytes(),
                              {{"x", Tensor::of_floats({1, 10, 1, 1}, ascending(10))}});
        expect_proof(result);
        std::vector<double> expected = {0, 1, 2, 3, 4, 5, 6};
        // A float 0.7 is less than 0.7.
        if (type == DOUBLE) expected.pop_back();
        expect_numbers(result, expected);
    }
}

TEST(ConstantArithmetic, OfFloatsIsRoundedByTheEvaluatorNodeByNode) {
    OneNode floats("Mul");
    floats.tensor(Tensor::of_floats({}, {10.0f})).tensor(Tensor::of_floats({}, {0.7f}));
    floats.gives({}, {7.0});
    OneNode doubles("Mul");
    doubles.reals({}, {10.0}).reals({}, {static_cast<double>(0.7f)});
    doubles.gives({}, {10.0 * static_cast<double>(0.7f)});
}

// A value of [1, 4, 16] that the engine still has as 4x2x8.
MadeModel reshaped_from(const Dims& picture, const Dims& dims) {
    MadeModel model;
    model.input("x", picture).output("y").integers("dims", dims);
    model.node("Reshape", {"x", "dims"}, {"r"});
    return model;
}

void expect_by_evaluator(const MadeModel& model) {
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_TRUE(result.proof.holds());
}

TEST(Division, AReshapedTensorIsDividedAgainWhereRowsOrColumnsCount) {
    const Dims pictures[] = {{1, 4, 2, 8}, {1, 1, 4, 16}, {1, 64, 1, 1}, {1, 4, 16, 1}};
    for (const Dims& picture : pictures) {
        SCOPED_TRACE(testing::PrintToString(picture));
        const auto made = [&] { return reshaped_from(picture, {1, 4, 16}); };
        if (picture[1] != 1) {
            expect_by_evaluator(made().random("o", {1, 4, 16}, 5).node("Add", {"r", "o"}, {"y"}));
            MadeModel joined = made();
            joined.node("Concat", {"r", "r"}, {"y"}, {{"axis", 2}});
            expect_by_evaluator(joined);
            MadeModel sliced = made();
            sliced.integers("from", {3}).integers("to", {11}).integers("axis", {2});
            sliced.node("Slice", {"r", "from", "to", "axis"}, {"y"});
            expect_by_evaluator(sliced);
            MadeModel convolved = made();
            convolved.random("w", {3, 4, 3}, 6);
            convolved.node("Conv", {"r", "w"}, {"y"}, {{"pads", Ints{1, 1}}});
            expect_by_evaluator(convolved);
            MadeModel pooled = made();
            pooled.node("MaxPool", {"r"}, {"y"}, {{"kernel_shape", Ints{3}}});
            expect_by_evaluator(pooled);
            MadeModel padded = made();
            padded.integers("pads", {0, 0, 2, 0, 0, 1}).node("Pad", {"r", "pads"}, {"y"});
            expect_by_evaluator(padded);
        }
    }
    // Rows out of one line, and other rows of as many pixels.
    for (const Dims& picture : {Dims{1, 3, 1, 12}, Dims{1, 3, 2, 6}, Dims{1, 1, 4, 9}}) {
        SCOPED_TRACE(testing::PrintToString(picture));
        MadeModel model = reshaped_from(picture, {1, picture[1], 3, -1});
        model.node("MaxPool", {"r"}, {"y"}, {{"kernel_shape", Ints{2, 2}}});
        expect_by_evaluator(model);
    }
}

}  // namespace
