// Small files that ask for much: constants computed from constants, weights that many layers share,
// nodes that become many layers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/made_model.h"
#include "support/peak_memory.h"

namespace {

using namespace onnx_test;
using testing_support::PeakMemory;

void expect_refusal(const Converted& result, const std::string& node, const std::string& reason) {
    ASSERT_FALSE(result.status) << "was converted";
    const std::string& line = result.status.message();
    EXPECT_NE(line.find(node), std::string::npos) << line;
    EXPECT_NE(line.find(reason), std::string::npos) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    EXPECT_TRUE(result.conversion.file.empty());
}

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

}  // namespace
