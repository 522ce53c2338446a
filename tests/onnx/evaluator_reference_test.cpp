// The evaluator against PyTorch, both in double.
#include <gtest/gtest.h>
#include <modelkit/onnx/evaluator.h>

#include <cmath>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "onnx/reference_files.h"

namespace {

using namespace modelkit::onnx;
using namespace onnx_reference;

// Both sides round at 2^-53. The longest chain of these networks has some 10^4 additions, and 10^3
// is left for what cancels: 10^7 * 2^-53 = 10^-9 of the largest value. Arithmetic in float, or one
// weight read as a float too few, shows at 10^-8 and above.
constexpr double NETWORK_TOLERANCE = 1e-9;
// At most 10^3 additions: 10^-11 has room for a hundred times their rounding.
constexpr double CASE_TOLERANCE = 1e-11;

void expect_the_reference(const ReferenceGraph& reference, double tolerance) {
    Graph graph;
    const modelkit::Status read =
        read_graph(reference.bytes.data(), reference.bytes.size(), "", graph);
    ASSERT_TRUE(read) << read.message();
    std::map<std::string, Tensor> values;
    const modelkit::Status evaluated = evaluate(graph, reference.inputs, values);
    ASSERT_TRUE(evaluated) << evaluated.message();
    ASSERT_FALSE(reference.expected.empty());
    for (size_t i = 0; i < reference.expected.size(); ++i) {
        const Expected& expected = reference.expected[i];
        SCOPED_TRACE(expected.name);
        const Tensor& tensor = values.at(expected.name);
        if (graph.outputs[i].has_shape) {
            ASSERT_EQ(graph.outputs[i].dims.size(), tensor.dims.size());
            for (size_t d = 0; d < tensor.dims.size(); ++d) {
                if (graph.outputs[i].dims[d] >= 0) {
                    EXPECT_EQ(graph.outputs[i].dims[d], tensor.dims[d]);
                }
            }
        }
        const std::vector<double> found = kept_of(tensor.numbers(), tensor.dims, expected.every);
        ASSERT_EQ(expected.values.size(), found.size());
        const double bound = tolerance * std::max(1.0, largest(expected.values));
        for (size_t k = 0; k < found.size(); ++k)
            ASSERT_NEAR(expected.values[k], found[k], bound) << "element " << k;
    }
}

class EvaluatorCase : public testing::TestWithParam<std::string> {};

// Inputs whose shape the file leaves open.
const std::map<std::string, std::map<std::string, std::vector<int64_t>>> OPEN_SHAPES = {
    {"interpolate_to_other_dynamic", {{"x0", {1, 2, 3, 4}}, {"x1", {1, 3, 6, 8}}}},
};

TEST_P(EvaluatorCase, GivesWhatPyTorchGives) {
    const auto open = OPEN_SHAPES.find(GetParam());
    expect_the_reference(
        read_reference("cases", GetParam(),
                       open != OPEN_SHAPES.end() ? open->second
                                                 : std::map<std::string, std::vector<int64_t>>()),
        CASE_TOLERANCE);
}

INSTANTIATE_TEST_SUITE_P(Small, EvaluatorCase, testing::ValuesIn(names_in("cases")),
                         [](const auto& info) { return info.param; });

class EvaluatorNetwork : public testing::TestWithParam<std::string> {};

TEST_P(EvaluatorNetwork, GivesWhatPyTorchGives) {
    expect_the_reference(read_reference("networks", GetParam()), NETWORK_TOLERANCE);
}

INSTANTIATE_TEST_SUITE_P(Whole, EvaluatorNetwork, testing::ValuesIn(names_in("networks")),
                         [](const auto& info) { return info.param; });

TEST(ReferenceFiles, AreAllThere) {
    EXPECT_GE(names_in("cases").size(), 250u);
    EXPECT_EQ(names_in("networks"),
              (std::vector<std::string>{"denoiser", "encoder_decoder", "fire_classifier",
                                        "one_frame_denoiser", "residual_classifier",
                                        "separable_classifier"}));
}

TEST(ReferenceFiles, HaveASecondWitnessForAGoodPart) {
    size_t witnessed = 0;
    for (const std::string& name : names_in("cases"))
        witnessed += read_reference("cases", name).origin == "PyTorch, OpenCV" ? 1 : 0;
    EXPECT_GE(witnessed, 100u);
}

TEST(ReferenceFiles, CoverEveryOperatorSet) {
    std::set<int64_t> sets;
    for (const char* folder : {"cases", "networks"}) {
        for (const std::string& name : names_in(folder)) {
            onnx::ModelProto model;
            ASSERT_TRUE(model.ParseFromString(read_bytes(FOLDER + folder + "/" + name + ".onnx")));
            sets.insert(model.opset_import(0).version());
        }
    }
    for (int64_t set = OLDEST_OPSET; set <= NEWEST_OPSET; ++set)
        EXPECT_EQ(sets.count(set), 1u) << set;
}

TEST(FillRule, GivesTheNumbersOfTheScripts) {
    // fill.uniform(1, -2, 2, (4,)) and fill.uniform(7, 0.5, 0.75, (3,))
    EXPECT_EQ(
        testing_support::uniform_fill(1, -2, 2, 4),
        (std::vector<float>{-0x1.3855b8p-1f, 0x1.496dccp+0f, 0x1.2bff8cp+0f, 0x1.918158p+0f}));
    EXPECT_EQ(testing_support::uniform_fill(7, 0.5, 0.75, 3),
              (std::vector<float>{0x1.2a5674p-1f, 0x1.426ff2p-1f, 0x1.70e9p-1f}));
}

}  // namespace
