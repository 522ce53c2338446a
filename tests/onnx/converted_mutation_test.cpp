// Graphs with something changed, converted and run: what is converted means what the graph means,
// and all else is one line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "onnx/converted_model.h"
#include "onnx/graph_mutator.h"
#include "onnx/reference_files.h"

namespace {

using namespace modelkit::onnx;
using namespace onnx_reference;
using namespace onnx_test;

// Beyond it halves overflow, and the engines' sigmoids and softmaxes with them.
constexpr double LARGEST = 60;

bool is_tame(const std::map<std::string, Tensor>& values) {
    for (const auto& [name, tensor] : values)
        for (const double value : tensor.numbers())
            if (!(std::abs(value) <= LARGEST)) return false;
    return true;
}

// A case with something changed, converted where it can be.
struct Changed {
    Graph graph;
    std::map<std::string, Tensor> values;
    modelkit::Status evaluated = modelkit::Status::success();
    modelkit::Status converted = modelkit::Status::success();
    Conversion conversion;

    /// Without a meaning there is nothing to compare; the proof refuses such a conversion.
    bool compares() const { return converted && evaluated && is_tame(values); }
};

Changed changed(const Graph& sound, const ReferenceGraph& reference, uint32_t seed) {
    EvaluationLimits limits;
    limits.elements = 1 << 16;
    limits.steps = 1 << 20;
    Changed result;
    result.graph = sound;
    // The shapes are the mutator's affair now.
    for (auto& output : result.graph.outputs) output.has_shape = false;
    Mutator mutator(seed);
    mutator.change(result.graph);
    result.evaluated = evaluate(result.graph, reference.inputs, result.values, limits);
    ConvertOptions options;
    for (const auto& [name, tensor] : reference.inputs) options.shapes[name] = tensor.dims;
    result.converted = convert(result.graph, options, result.conversion);
    return result;
}

constexpr uint32_t SEEDS = 25;

class ConvertedMutation : public testing::TestWithParam<std::string> {};

TEST_P(ConvertedMutation, MeansTheSameOrIsRefused) {
    const ReferenceGraph reference = read_reference("cases", GetParam());
    Graph sound;
    ASSERT_TRUE(read_graph(reference.bytes.data(), reference.bytes.size(), "", sound));
    for (uint32_t seed = 0; seed < SEEDS; ++seed) {
        SCOPED_TRACE(seed);
        const Changed each = changed(sound, reference, seed);
        if (!each.converted) {
            const std::string& line = each.converted.message();
            EXPECT_EQ(line.find('\n'), std::string::npos) << line;
            EXPECT_LT(line.size(), 1000u) << line;
            continue;
        }
        if (!each.compares()) continue;
        const auto found = run_on_cpu(each.conversion, reference.inputs);
        const auto bounds = bounds_of(each.graph, reference.inputs, 8);
        for (const auto& output : each.graph.outputs) {
            SCOPED_TRACE(output.name);
            const std::vector<double> expected = each.values.at(output.name).numbers();
            const auto result = found.find(output.name);
            ASSERT_NE(result, found.end());
            ASSERT_EQ(result->second.size(), expected.size());
            double worst = 0;
            for (size_t i = 0; i < expected.size(); ++i)
                worst = std::max(worst, std::abs(result->second[i] - expected[i]));
            EXPECT_LE(worst, bounds.at(output.name)) << "of values up to " << largest(expected);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Small, ConvertedMutation, testing::ValuesIn(names_in("cases")),
                         [](const auto& info) { return info.param; });

// What is refused is not compared: some of the changes have to leave a graph that means something.
TEST(ConvertedMutations, AreOftenConverted) {
    size_t compared = 0;
    size_t cases = 0;
    for (const std::string& name : names_in("cases")) {
        const ReferenceGraph reference = read_reference("cases", name);
        Graph sound;
        ASSERT_TRUE(read_graph(reference.bytes.data(), reference.bytes.size(), "", sound));
        bool one = false;
        for (uint32_t seed = 0; seed < SEEDS; ++seed) {
            if (!changed(sound, reference, seed).compares()) continue;
            ++compared;
            one = true;
        }
        if (one) ++cases;
    }
    // 2688 of 7000 changes, of 257 of 280 cases, when this was written.
    EXPECT_GE(compared, 2600u);
    EXPECT_GE(cases, 250u);
}

}  // namespace
