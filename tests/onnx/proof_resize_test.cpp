// That the proof allows for the engine's positions in linear resizes with aligned corners, and for
// nothing else.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

MadeModel enlarged(int64_t height, int64_t width, int64_t times, bool behind,
                   const char* corner = "align_corners") {
    MadeModel model;
    model.input("x", {1, 3, height, width}).output("y");
    const int64_t channels = behind ? 4 : 3;
    if (behind) {
        model.random("w", {4, 3, 3, 3}, 5, 0.3);
        model.node("Conv", {"x", "w"}, {"c"}, {{"pads", Ints{1, 1, 1, 1}}});
        model.node("Relu", {"c"}, {"r"});
    }
    model.integers("sizes", {1, channels, height * times, width * times});
    model.node("Resize", {behind ? "r" : "x", "", "", "sizes"}, {"y"},
               {{"mode", "linear"}, {"coordinate_transformation_mode", corner}});
    return model;
}

// The nodes of a resize in `graph` by another rule.
void take_corner(Graph& graph, const char* corner) {
    for (modelkit::onnx::Node& node : graph.nodes) {
        if (node.op_type != "Resize") continue;
        node.attributes["coordinate_transformation_mode"].strings = {corner};
    }
}

// Few rows, so that the sides may be long.
int64_t height_of(int64_t side, int64_t times) {
    return std::max<int64_t>(8, side / times);
}

class AlignedResize : public testing::TestWithParam<std::pair<int64_t, int64_t>> {};

TEST_P(AlignedResize, IsProvenAloneAndBehindAConvolution) {
    const auto [side, times] = GetParam();
    for (const bool behind : {false, true}) {
        SCOPED_TRACE(behind ? "behind" : "alone");
        const Converted result =
            convert_and_prove(enlarged(height_of(side, times), side, times, behind).bytes());
        expect_proof(result);
        // By its own arithmetic, twice: along rows and columns each, neighbours up to twice the
        // largest apart, and some roundings of the result.
        const auto n = static_cast<double>(side);
        const double reach = times == 2 ? (n / 2 + 3) * n : 2 * n;
        const double most = result.proof.outputs[0].largest;
        const double weights = behind ? 0x1p-24 * 8 * (27 + 8) : 0;
        EXPECT_LE(result.proof.outputs[0].bound,
                  most * (2 * 2 * 2 * reach * 0x1p-24 + 16 * 0x1p-24 + 4 * weights));
    }
}

// Engine and simplified graph, the engine being wrong; simplified graph and graph, both engine and
// converter being wrong.
TEST_P(AlignedResize, IsRefusedByAnotherRule) {
    const auto [side, times] = GetParam();
    for (const bool behind : {false, true}) {
        SCOPED_TRACE(behind ? "behind" : "alone");
        for (const char* wrong : {"half_pixel", "asymmetric"}) {
            SCOPED_TRACE(wrong);
            Converted result =
                convert_only(enlarged(height_of(side, times), side, times, behind).bytes());
            ASSERT_TRUE(result.status) << result.status.message();
            take_corner(result.original, wrong);
            prove_converted(result);
            ASSERT_TRUE(result.status) << result.status.message();
            EXPECT_FALSE(result.proof.outputs[0].halves_hold());
            take_corner(result.original, "align_corners");
            take_corner(result.conversion.rounded, wrong);
            prove_converted(result);
            ASSERT_TRUE(result.status) << result.status.message();
            EXPECT_GT(result.proof.outputs[0].unexplained, 10 * result.proof.outputs[0].bound);
        }
    }
}

// The file's layer has half pixels; graph and simplified graph are as they were.
TEST_P(AlignedResize, IsRefusedWhereTheEngineHasHalfPixels) {
    const auto [side, times] = GetParam();
    Converted result = convert_only(enlarged(height_of(side, times), side, times, false).bytes());
    Converted other = convert_only(enlarged(height_of(side, times), side, times, false,
                                            times == 2 ? "half_pixel" : "asymmetric")
                                       .bytes());
    ASSERT_TRUE(result.status && other.status) << other.status.message();
    const int layer = other.conversion.names.outputs[0].layer;
    result.conversion.names.outputs[0].layer = layer;
    prove_converted(result, {}, false, other.conversion.file);
    ASSERT_TRUE(result.status) << result.status.message();
    EXPECT_GT(result.proof.outputs[0].unexplained, 10 * result.proof.outputs[0].bound);
}

std::vector<std::pair<int64_t, int64_t>> sides_and_factors() {
    std::vector<std::pair<int64_t, int64_t>> list;
    for (const int64_t side : {8, 16, 32, 64, 100, 128}) {
        for (const int64_t times : {2, 4, 8}) list.emplace_back(side, times);
    }
    return list;
}

INSTANTIATE_TEST_SUITE_P(Proof, AlignedResize, testing::ValuesIn(sides_and_factors()),
                         [](const auto& info) {
                             return std::to_string(info.param.first) + "By" +
                                    std::to_string(info.param.second);
                         });

// Ramps along the diagonals pull rows and columns together and against each other; a ramp is the
// worst for positions that lean one way throughout.
TEST(AlignedResizeProof, HoldsForRampsAndStripes) {
    const std::map<std::string, std::function<double(int, int)>> pictures = {
        {"together", [](int y, int x) { return (y + x) / 128.0 - 1; }},
        {"against", [](int y, int x) { return (y - x) / 128.0; }},
        {"stripes", [](int y, int) { return y % 2 == 0 ? 1.0 : -1.0; }},
        {"squares", [](int y, int x) { return (y + x) % 2 == 0 ? 1.0 : -1.0; }},
        {"corner", [](int y, int x) { return y == 126 && x == 126 ? 1.0 : 0.0; }},
    };
    for (const auto& [name, picture_at] : pictures) {
        std::vector<float> values;
        for (int c = 0; c < 3; ++c) {
            for (int i = 0; i < 128 * 128; ++i) {
                values.push_back(static_cast<float>(picture_at(i / 128, i % 128)));
            }
        }
        for (const int64_t times : {2, 4}) {
            for (const bool behind : {false, times == 2}) {
                SCOPED_TRACE(name + " by " + std::to_string(times) + (behind ? " behind" : ""));
                expect_proof(convert_and_prove(enlarged(128, 128, times, behind).bytes(),
                                               {{"x", picture({1, 3, 128, 128}, values)}}));
            }
        }
    }
}

TEST(AlignedResizeProof, IsCarriedOnThroughLaterLayers) {
    for (const int64_t width : {40, 101, 128}) {
        MadeModel model;
        model.input("x", {1, 3, 64, width}).output("y");
        model.integers("sizes", {1, 3, 128, 2 * width}).random("w", {4, 3, 3, 3}, 5, 2.0);
        model.node("Resize", {"x", "", "", "sizes"}, {"u"},
                   {{"mode", "linear"}, {"coordinate_transformation_mode", "align_corners"}});
        model.node("Conv", {"u", "w"}, {"c"}).node("Sigmoid", {"c"}, {"y"});
        expect_proof(convert_and_prove(model.bytes()));
    }
}

TEST(AlignedResizeProof, IsToldWherePositionsAreOffByMoreThanHalvesResolve) {
    expect_note(convert_only(enlarged(16, 91, 2, false).bytes()),
                "off by up to 0.000493586 of the step between two pixels");
    EXPECT_TRUE(convert_only(enlarged(16, 90, 2, false).bytes()).conversion.notes.empty());
    EXPECT_TRUE(convert_only(enlarged(16, 128, 4, false).bytes()).conversion.notes.empty());
}

// At 377 inputs the running sum has fallen back behind pixel 375.
TEST(AlignedResizeProof, IsNotNeededWhereTheEngineTakesOtherNeighbours) {
    expect_proof(convert_and_prove(enlarged(4, 376, 2, false).bytes()));
    for (const bool rows : {true, false}) {
        expect_refusal(convert_only(enlarged(rows ? 377 : 4, rows ? 4 : 377, 2, false).bytes()),
                       "node \"y\" (Resize)", "found 377, out of step at pixel 375");
    }
    expect_proof(convert_and_prove(enlarged(377, 4, 4, false).bytes()));
}

}  // namespace
