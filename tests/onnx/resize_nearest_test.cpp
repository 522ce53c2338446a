// Which pixels a nearest resize takes by fractional scales, against PyTorch's choice.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "onnx/one_node.h"
#include "onnx/reference_files.h"
#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

struct Row {
    int64_t size = 0;
    float scale = 0;
    std::vector<double> pixels;
};

std::vector<Row> rows_of_pytorch() {
    std::ifstream in(onnx_reference::FOLDER + "nearest_indices.txt");
    EXPECT_TRUE(in.good());
    std::vector<Row> rows;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        Row row;
        char colon = 0;
        words >> row.size >> row.scale >> colon;
        EXPECT_EQ(colon, ':') << line;
        for (double pixel = 0; words >> pixel;) row.pixels.push_back(pixel);
        rows.push_back(row);
    }
    EXPECT_EQ(rows.size(), 10u);
    return rows;
}

// Where a float quotient takes another pixel than PyTorch, which multiplies by the reciprocal, and
// which one.
std::map<size_t, double> by_quotient_only(const Row& row) {
    if (row.size == 32 && row.scale == 1.2f) return {{18, 14}, {30, 24}, {36, 29}};
    if (row.size == 32 && row.scale == 2.3f) return {{69, 30}};
    return {};
}

// The pixels of a row whose numbers are their own places.
void expect_the_pixels(const Row& row, const std::vector<double>& found) {
    std::vector<double> expected = row.pixels;
    for (const auto& [at, pixel] : by_quotient_only(row)) {
        ASSERT_LT(at, expected.size());
        EXPECT_EQ(std::abs(expected[at] - pixel), 1) << at;
        expected[at] = pixel;
    }
    EXPECT_EQ(found, expected);
}

MadeModel resize_by(const Row& row, bool rows) {
    MadeModel model;
    const std::vector<int64_t> dims = {1, 1, rows ? row.size : 1, rows ? 1 : row.size};
    model.input("x", dims).output("y").floats("s", {4},
                                              {1, 1, rows ? row.scale : 1, rows ? 1 : row.scale});
    model.node("Resize", {"x", "", "s"}, {"y"},
               {{"mode", "nearest"},
                {"coordinate_transformation_mode", "asymmetric"},
                {"nearest_mode", "floor"}});
    return model;
}

TEST(ResizeNearest, OfTheEvaluatorTakesThePixelsThatPyTorchTakes) {
    for (const Row& row : rows_of_pytorch()) {
        SCOPED_TRACE(std::to_string(row.size) + " by " + std::to_string(row.scale));
        std::vector<double> places;
        for (int64_t i = 0; i < row.size; ++i) places.push_back(static_cast<double>(i));
        OneNode node("Resize");
        node.reals({1, row.size}, places).skip();
        node.reals({2}, {1, static_cast<double>(row.scale)});
        node.with("coordinate_transformation_mode", "asymmetric").with("nearest_mode", "floor");
        expect_the_pixels(row, node.result().numbers());
    }
}

TEST(ResizeNearest, ConvertedTakesThePixelsThatPyTorchTakes) {
    for (const Row& row : rows_of_pytorch()) {
        for (const bool rows : {true, false}) {
            SCOPED_TRACE(std::to_string(row.size) + " by " + std::to_string(row.scale));
            std::vector<float> places;
            for (int64_t i = 0; i < row.size; ++i) places.push_back(static_cast<float>(i));
            const std::vector<int64_t> dims = {1, 1, rows ? row.size : 1, rows ? 1 : row.size};
            const Converted result = convert_and_prove(resize_by(row, rows).bytes(),
                                                       {{"x", Tensor::of_floats(dims, places)}});
            expect_proof(result);
            ASSERT_FALSE(testing::Test::HasFatalFailure());
            expect_the_pixels(row, result.numbers());
            // All that differ are told.
            for (const auto& [at, pixel] : by_quotient_only(row)) {
                expect_note(result, " " + std::to_string(at));
            }
        }
    }
}

TEST(ResizeNearest, TellsThePixelsThatRoundingDecides) {
    Row row;
    row.size = 32;
    row.scale = 1.2f;
    expect_note(convert_and_prove(resize_by(row, false).bytes()),
                "node \"y\": columns 6, 12, 18, 24, 30, 36 at scale 1.2: which of two pixels is "
                "taken depends on rounding; column 6 is pixel 4 or 5, here 5");
    row.scale = 2.3f;
    expect_note(convert_and_prove(resize_by(row, true).bytes()),
                "rows 23, 46, 69 at scale 2.3: which of two pixels");
    // The product of 41 and the float next to 1 / 41 is less than 1.
    row.size = 3;
    row.scale = 41;
    expect_note(convert_and_prove(resize_by(row, false).bytes()),
                "column 41 is pixel 0 or 1, here 1");
}

TEST(ResizeNearest, TellsNothingWherePixelsAreBeyondDoubt) {
    for (const float scale : {1.5f, 2.0f, 2.5f, 3.0f, 4.0f, 7.0f, 0.5f, 0.25f}) {
        SCOPED_TRACE(scale);
        Row row;
        row.size = 32;
        row.scale = scale;
        for (const bool rows : {true, false}) {
            const Converted result = convert_and_prove(resize_by(row, rows).bytes());
            expect_proof(result);
            EXPECT_TRUE(result.conversion.notes.empty()) << result.conversion.notes[0];
        }
    }
}

TEST(UpsampleRewrite, HasAnotherNameForLinear) {
    const auto model = [](const char* mode) {
        MadeModel made(9);
        made.input("x", {1, 2, 4, 6}).output("y").floats("s", {4}, {1, 1, 2, 2});
        return made.node("Upsample", {"x", "s"}, {"y"}, {{"mode", mode}});
    };
    const Converted linear = convert_and_prove(model("linear").bytes());
    const Converted bilinear = convert_and_prove(model("bilinear").bytes());
    expect_proof(linear);
    expect_proof(bilinear);
    EXPECT_EQ(bilinear.numbers(), linear.numbers());
    expect_refusal(convert_only(one_node("Resize", {1, 2, 4, 6}, {{"mode", "bilinear"}}).bytes()),
                   "node \"y\" (Resize)", "mode nearest or linear expected, found \"bilinear\"");
}

}  // namespace
