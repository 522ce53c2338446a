// Convolutions of stride 2 that go by blocks of two by two pixels where the GPU engine lacks the
// kernel. The proof runs the layers on the CPU engine against the graph's own convolution.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

struct Case {
    const char* name;
    Ints dims;
    Ints weights;
    std::vector<With> attributes;
    Kinds kinds;
};

void PrintTo(const Case& each, std::ostream* out) {
    *out << each.name;
}

const With TWO = {"strides", Ints{2, 2}};

ConvertOptions both() {
    ConvertOptions options;
    options.engines = Engines::Both;
    return options;
}

Converted converted(const char* op_type, const Case& each, const ConvertOptions& options) {
    MadeModel model;
    model.input("x", each.dims).output("y").random("w", each.weights, 5);
    int64_t outputs = each.weights[op_type == std::string("Conv") ? 0 : 1];
    for (const With& attribute : each.attributes) {
        if (op_type != std::string("Conv") && attribute.proto.name() == "group") {
            outputs *= attribute.proto.i();
        }
    }
    model.random("b", {outputs}, 6);
    model.node(op_type, {"x", "w", "b"}, {"c"}, each.attributes).node("Relu", {"c"}, {"y"});
    return convert_and_prove(model.bytes(), {}, options);
}

class BlockedConv : public testing::TestWithParam<Case> {};

const Case CONVOLUTIONS[] = {
    {"patches_of_2x2", {1, 3, 8, 6}, {5, 3, 2, 2}, {TWO}, {"PixelShuffle", "Conv2D"}},
    {"stem_of_7x7",
     {1, 3, 16, 12},
     {5, 3, 7, 7},
     {TWO, {"pads", Ints{3, 3, 3, 3}}},
     {"PixelShuffle", "Conv2D"}},
    {"6x6",
     {1, 2, 8, 8},
     {4, 2, 6, 6},
     {TWO, {"pads", Ints{2, 2, 2, 2}}},
     {"PixelShuffle", "Conv2D"}},
    {"8x8",
     {1, 2, 10, 12},
     {4, 2, 8, 8},
     {TWO, {"pads", Ints{3, 3, 3, 3}}},
     {"PixelShuffle", "Conv2D"}},
    {"9x9",
     {1, 2, 10, 12},
     {4, 2, 9, 9},
     {TWO, {"pads", Ints{4, 4, 4, 4}}},
     {"PixelShuffle", "Conv2D"}},
    {"7x3",
     {1, 2, 8, 8},
     {4, 2, 7, 3},
     {TWO, {"pads", Ints{3, 1, 3, 1}}},
     {"PixelShuffle", "Conv2D"}},
    {"uneven_pads",
     {1, 2, 8, 8},
     {4, 2, 6, 6},
     {TWO, {"pads", Ints{1, 3, 3, 1}}},
     {"PixelShuffle", "Conv2D"}},
    {"two_groups",
     {1, 4, 8, 8},
     {6, 2, 7, 7},
     {TWO, {"group", 2}, {"pads", Ints{3, 3, 3, 3}}},
     {"PixelShuffle", "Conv2D"}},
};

TEST_P(BlockedConv, GivesWhatOnnxSays) {
    const Converted result = converted("Conv", GetParam(), both());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), GetParam().kinds);
    // The CPU engine alone has the kernel itself.
    const Converted alone = converted("Conv", GetParam(), {});
    expect_proof(alone);
    for (const std::string& kind : alone.kinds()) EXPECT_NE(kind, "PixelShuffle");
}

INSTANTIATE_TEST_SUITE_P(Shapes, BlockedConv, testing::ValuesIn(CONVOLUTIONS),
                         [](const auto& info) { return std::string(info.param.name); });

class BlockedTransposedConv : public testing::TestWithParam<Case> {};

const Case TRANSPOSED[] = {
    {"4x4",
     {1, 3, 5, 4},
     {3, 2, 4, 4},
     {TWO, {"pads", Ints{1, 1, 1, 1}}},
     {"Conv2D", "PixelShuffle"}},
    {"5x5",
     {1, 3, 5, 4},
     {3, 2, 5, 5},
     {TWO, {"pads", Ints{2, 2, 2, 2}}, {"output_padding", Ints{1, 1}}},
     {"Conv2D", "PixelShuffle"}},
    {"6x6",
     {1, 3, 5, 4},
     {3, 2, 6, 6},
     {TWO, {"pads", Ints{2, 2, 2, 2}}},
     {"Conv2D", "PixelShuffle"}},
    {"4x2",
     {1, 3, 5, 4},
     {3, 2, 4, 2},
     {TWO, {"pads", Ints{1, 0, 1, 0}}},
     {"Conv2D", "PixelShuffle"}},
    {"uneven_pads",
     {1, 3, 5, 4},
     {3, 2, 4, 4},
     {TWO, {"pads", Ints{0, 2, 2, 0}}},
     {"Conv2D", "PixelShuffle"}},
    {"two_groups",
     {1, 4, 4, 4},
     {4, 3, 4, 4},
     {TWO, {"group", 2}, {"pads", Ints{1, 1, 1, 1}}},
     {"Conv2D", "PixelShuffle"}},
    {"3x3_is_the_engines_own",
     {1, 3, 5, 4},
     {3, 2, 3, 3},
     {TWO, {"pads", Ints{1, 1, 1, 1}}, {"output_padding", Ints{1, 1}}},
     {"Conv2DTranspose"}},
};

TEST_P(BlockedTransposedConv, GivesWhatOnnxSays) {
    const Converted result = converted("ConvTranspose", GetParam(), both());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), GetParam().kinds);
    const Converted alone = converted("ConvTranspose", GetParam(), {});
    expect_proof(alone);
    for (const std::string& kind : alone.kinds()) EXPECT_NE(kind, "PixelShuffle");
}

INSTANTIATE_TEST_SUITE_P(Shapes, BlockedTransposedConv, testing::ValuesIn(TRANSPOSED),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BlockedConv, OddSidesAndOtherStridesAreRefusedForTheGpuEngine) {
    for (const Case& each :
         {Case{"odd", {1, 2, 9, 8}, {4, 2, 7, 7}, {TWO, {"pads", Ints{3, 3, 3, 3}}}, {}},
          Case{"one_place_less", {1, 2, 8, 8}, {4, 2, 7, 7}, {TWO, {"pads", Ints{2, 2, 2, 2}}}, {}},
          Case{"stride_1", {1, 2, 8, 8}, {4, 2, 7, 7}, {{"pads", Ints{3, 3, 3, 3}}}, {}},
          Case{"too_large",
               {1, 2, 16, 16},
               {4, 2, 11, 11},
               {TWO, {"pads", Ints{5, 5, 5, 5}}},
               {}}}) {
        SCOPED_TRACE(each.name);
        expect_refusal(converted("Conv", each, both()), "node \"c\" (Conv)", "on the GPU engine");
        expect_proof(converted("Conv", each, {}));
    }
}

}  // namespace
