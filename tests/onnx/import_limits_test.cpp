// Small files that ask for much: constants computed from constants, weights that many layers share,
// nodes that become many layers.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "onnx/rewritten.h"
#include "support/peak_memory.h"

namespace {

using namespace onnx_test;
using testing_support::PeakMemory;

// x plus the means of `count` constants of `size` zeros, which live side by side or in turn.
std::string computed_constants(int count, int64_t size, bool in_turn) {
    MadeModel model;
    model.input("x", {1, 4, 4, 4}).output("y").integers("size", {size});
    const auto make = [&](const std::string& n) {
        model.node("ConstantOfShape", {"size"}, {"zeros" + n});
    };
    const auto use = [&](const std::string& n, int i) {
        model.node("ReduceMean", {"zeros" + n}, {"mean" + n},
                   {{"axes", std::vector<int64_t>{0}}, {"keepdims", 0}});
        model.node("Add", {i == 0 ? "x" : "sum" + std::to_string(i - 1), "mean" + n}, {"sum" + n});
    };
    for (int i = 0; i < count; ++i) {
        make(std::to_string(i));
        if (in_turn) use(std::to_string(i), i);
    }
    for (int i = 0; i < count && !in_turn; ++i) use(std::to_string(i), i);
    model.node("Relu", {"sum" + std::to_string(count - 1)}, {"y"});
    return model.bytes();
}

TEST(ImportLimits, ConstantsComputedFromConstantsHaveATotal) {
    const PeakMemory peak;
    const std::string many = computed_constants(12, 1 << 20, false);
    EXPECT_LT(many.size(), 2000u);
    expect_refusal(convert_only(many),
                   "node \"zeros4\" (ConstantOfShape): constants computed from "
                   "constants, for a file of 1 numbers: a tensor of shape ",
                   "[1048576] is too large");
    expect_refusal(convert_only(computed_constants(1, int64_t{1} << 26, true)), "node \"zeros0\"",
                   "[67108864] is too large");
    EXPECT_LT(peak.growth(), 200e6);
}

TEST(ImportLimits, ConstantsThatNothingReadsAnyMoreTakeNoRoom) {
    const Converted result = convert_only(computed_constants(12, 1 << 20, true));
    EXPECT_TRUE(result.status) << result.status.message();
}

TEST(ImportLimits, ConstantsComputedInTurnHaveATotal) {
    expect_refusal(convert_only(computed_constants(70, 1 << 20, true)), "node \"zeros64\"",
                   "is too large");
}

TEST(ImportLimits, AFileWithMoreNumbersMayComputeMore) {
    MadeModel model;
    model.input("x", {1, 2048}).output("y").random("w", {2200, 2048}, 1);
    model.node("Transpose", {"w"}, {"t"}).node("Mul", {"t", "s"}, {"m"}).floats("s", {}, {0.5f});
    model.node("MatMul", {"x", "m"}, {"y"});
    const Converted result = convert_only(model.bytes());
    EXPECT_TRUE(result.status) << result.status.message();
}

// Convolutions of one weight tensor of `channels` squared, with or without normalisations.
std::string sharing_convolutions(int count, int64_t channels, bool normalised = true) {
    const auto size = static_cast<size_t>(channels);
    MadeModel model;
    model.input("x", {1, channels, 1, 1}).output("y").random("w", {channels, channels, 1, 1}, 1);
    model.floats("ones", {channels}, std::vector<float>(size, 1.0f));
    std::string last = "x";
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        model.node("Conv", {last, "w"}, {"conv" + n});
        last = "conv" + n;
        if (!normalised) continue;
        model.node("BatchNormalization", {last, "ones", "ones", "ones", "ones"}, {"norm" + n});
        last = "norm" + n;
    }
    model.node("Relu", {last}, {"y"});
    return model.bytes();
}

TEST(ImportLimits, WeightsThatManyLayersShareAreCopiedForSomeOfThem) {
    // 4 * (256 * 256 + 256) + 2^20 numbers are 20 copies.
    const Converted result = convert_only(sharing_convolutions(30, 256));
    ASSERT_TRUE(result.status) << result.status.message();
    int normalisations = 0;
    for (const std::string& kind : result.kinds()) normalisations += kind == "BatchNormalization";
    EXPECT_EQ(normalisations, 10);
}

TEST(ImportLimits, AFewLayersThatShareWeightsProveEqual) {
    Converted result = convert_and_prove(sharing_convolutions(3, 8));
    expect_proof(result);
    EXPECT_EQ(result.kinds(), (std::vector<std::string>{"Conv2D", "Conv2D", "Conv2D"}));
}

TEST(ImportLimits, AllLayersTogetherHaveATotalOfWeights) {
    ConvertOptions options;
    options.keep_rounded = false;
    const PeakMemory peak;
    // 2^26 + 16 * 1048576 numbers are 79 convolutions of 1048576 weights and a bias; the ones that
    // nothing reads do not count.
    expect_refusal(convert_only(sharing_convolutions(100, 1024, false), options), "node \"conv79\"",
                   "at most 83886080 weights in all layers of a file of this size expected, found "
                   "83968000");
    // Channels moved by 4094 x 4095 weights, 512 times.
    MadeModel model;
    model.input("x", {1, 4095, 1, 1});
    model.integers("one", {1}).integers("end", {4095});
    for (int i = 0; i < 512; ++i) {
        model.output("y" + std::to_string(i));
        model.node("Slice", {"x", "one", "end", "one"}, {"y" + std::to_string(i)});
    }
    const std::string bytes = model.bytes();
    EXPECT_LT(bytes.size(), 30000u);
    expect_refusal(convert_only(bytes, options), "node \"y4\" (Slice)", "weights in all layers");
    EXPECT_LT(peak.growth(), 500e6);
}

TEST(ImportLimits, GroupsAreSpreadWithoutAFurtherCopy) {
    // 64 groups of 16 channels: 147,456 weights become 9,437,184.
    MadeModel model;
    model.input("x", {1, 1024, 4, 4}).output("y").random("w", {1024, 16, 3, 3}, 1, 0.1);
    model.node("Conv", {"x", "w"}, {"y"},
               {{"group", 64}, {"pads", std::vector<int64_t>{1, 1, 1, 1}}});
    const std::string bytes = model.bytes();
    ConvertOptions options;
    options.keep_rounded = false;
    const PeakMemory peak;
    const Converted result = convert_only(bytes, options);
    ASSERT_TRUE(result.status) << result.status.message();
    ASSERT_GT(result.conversion.file.size(), 18874368u);
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT(peak.growth(), 2.0 * static_cast<double>(result.conversion.file.size()));
#endif
}

TEST(ImportLimits, LinesThatArePutTogetherAreCounted) {
    const PeakMemory peak;
    MadeModel padded;
    padded.input("x", {1, 2, 4, 4}).output("y").integers("pads", {0, 0, 0, 0, 0, 0, 0, 30000});
    padded.node("Pad", {"x", "pads"}, {"y"}, {{"mode", "edge"}});
    expect_refusal(convert_only(padded.bytes()), "node \"y\" (Pad)",
                   "at most 1024 pieces of rows or columns to put together expected, found 30001");
    MadeModel pooled;
    pooled.input("x", {1, 2, 1, 60001}).output("y");
    pooled.node("MaxPool", {"x"}, {"y"},
                {{"kernel_shape", std::vector<int64_t>{1, 30001}},
                 {"pads", std::vector<int64_t>{0, 15000, 0, 15000}}});
    expect_refusal(convert_only(pooled.bytes()), "node \"y\" (MaxPool)",
                   "at most 1024 pieces of rows or columns to put together expected, found 30001");
    EXPECT_LT(peak.growth(), 50e6);
}

TEST(ImportLimits, ManyLinesTakeFewTimesTheirRoom) {
    MadeModel model;
    model.input("x", {1, 2, 4, 4}).output("y").integers("pads", {0, 0, 0, 500, 0, 0, 0, 500});
    model.node("Pad", {"x", "pads"}, {"y"}, {{"mode", "edge"}});
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    int64_t all = 0;
    for (const modelkit::onnx::LayerReport& layer : result.conversion.layers) all += layer.elements;
    // Four levels of tens hold 1001 pieces, and each level holds all numbers once.
    EXPECT_LT(all, 5 * 2 * 4 * 1004);
}

TEST(ImportLimits, AProofThatWouldFillTheMemoryIsRefusedAndTheConversionIsNot) {
    const PeakMemory peak;
    MadeModel wide;
    wide.input("x", {1, 1, 16384, 16384}).output("y").node("Relu", {"x"}, {"y"});
    Converted result = convert_only(wide.bytes());
    ASSERT_TRUE(result.status) << result.status.message();
    const std::map<std::string, Tensor> none = {{"x", Tensor()}};
    modelkit::onnx::LayerReport more;
    more.id = 2;
    more.node = "more";
    more.elements = int64_t{1} << 20;
    result.conversion.layers.push_back(more);
    result.status = modelkit::onnx::prove(result.original, result.conversion, "none", none, false,
                                          {}, result.proof);
    ASSERT_FALSE(result.status);
    EXPECT_EQ(result.status.message(),
              "at most 536870912 numbers in the tensors of all layers expected, found 537919488, "
              "of them 268435456 in layer 0 of node \"x\"; --no-verify converts without a proof");
    EXPECT_LT(peak.growth(), 50e6);
}

}  // namespace
