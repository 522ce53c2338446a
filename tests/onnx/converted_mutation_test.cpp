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

class ConvertedMutation : public testing::TestWithParam<std::string> {};

TEST_P(ConvertedMutation, MeansTheSameOrIsRefused) {
    const ReferenceGraph reference = read_reference("cases", GetParam());
    Graph sound;
    ASSERT_TRUE(read_graph(reference.bytes.data(), reference.bytes.size(), "", sound));
    EvaluationLimits limits;
    limits.elements = 1 << 16;
    limits.steps = 1 << 20;
    for (uint32_t seed = 0; seed < 25; ++seed) {
        SCOPED_TRACE(seed);
        Graph graph = sound;
        // The shapes are the mutator's affair now.
        for (auto& output : graph.outputs) output.has_shape = false;
        Mutator mutator(seed);
        mutator.change(graph);
        std::map<std::string, Tensor> values;
        const modelkit::Status evaluated = evaluate(graph, reference.inputs, values, limits);
        ConvertOptions options;
        for (const auto& [name, tensor] : reference.inputs) options.shapes[name] = tensor.dims;
        Conversion conversion;
        const modelkit::Status converted = convert(graph, options, conversion);
        if (!converted) {
            EXPECT_EQ(converted.message().find('\n'), std::string::npos) << converted.message();
            EXPECT_LT(converted.message().size(), 1000u) << converted.message();
            continue;
        }
        // Without a meaning there is nothing to compare; the proof refuses such a conversion.
        if (!evaluated || !is_tame(values)) continue;
        const auto found = run_on_cpu(conversion, reference.inputs);
        const auto bounds = bounds_of(graph, reference.inputs, 8);
        for (const auto& output : graph.outputs) {
            SCOPED_TRACE(output.name);
            const std::vector<double> expected = values.at(output.name).numbers();
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

}  // namespace
