// Converted models on the CPU engine against PyTorch's arrays and against the evaluator.
#include <gtest/gtest.h>
#include <modelkit/onnx/evaluator.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/reference_files.h"
#include "onnx/refused_cases.h"

namespace {

using namespace onnx_reference;
using namespace onnx_test;
using Ints = std::vector<int64_t>;

// Inputs whose shape the file leaves open.
const std::map<std::string, std::map<std::string, std::vector<int64_t>>> OPEN_SHAPES = {
    {"interpolate_to_other_dynamic", {{"x0", {1, 2, 3, 4}}, {"x1", {1, 3, 6, 8}}}},
};

/// What the numbers of a graph go through, by the file alone: the converter has no part in it.
struct Arithmetic {
    double rounding_nodes = 0;  ///< whose weights or factors become halves
    double roundings = 0;       ///< of floats, one behind the other
};

double product(const Ints& dims) {
    double count = 1;
    for (const int64_t size : dims) count *= static_cast<double>(size);
    return count;
}

// How many products a number of a node's output is the sum of.
double terms_of(const std::string& op_type, const Ints& data, const Ints& weights) {
    if (op_type == "GlobalAveragePool" || op_type == "ReduceMean" || op_type == "AveragePool") {
        return data.size() > 2 ? product(data) / static_cast<double>(data[1]) : 1;
    }
    if (weights.size() < 2) return 1;
    if (op_type == "Conv") return product(weights) / static_cast<double>(weights[0]);
    if (op_type == "ConvTranspose") return product(weights) / static_cast<double>(weights[1]);
    if (op_type == "LSTM") return static_cast<double>(weights.back());
    if (op_type != "Gemm" && op_type != "MatMul") return 1;
    return static_cast<double>(std::max(weights[0], weights[1]));
}

Arithmetic arithmetic_of(const Graph& graph, const ReferenceGraph& reference) {
    std::map<std::string, Tensor> values;
    const modelkit::Status evaluated = modelkit::onnx::evaluate(graph, reference.inputs, values);
    EXPECT_TRUE(evaluated) << evaluated.message();
    for (const auto& [name, tensor] : reference.inputs) values[name] = tensor;
    std::set<std::string> constants;
    for (const auto& [name, tensor] : graph.initializers) {
        constants.insert(name);
        values[name] = tensor;
    }
    const std::set<std::string> with_factors = {"AveragePool", "GlobalAveragePool", "ReduceMean",
                                                "Resize",      "Upsample",          "HardSwish",
                                                "HardSigmoid", "LeakyRelu",         "Clip"};
    Arithmetic result;
    for (const auto& node : graph.nodes) {
        bool computes = false;
        bool weights = with_factors.count(node.op_type) != 0;
        Ints data;
        Ints shape;
        for (const std::string& input : node.inputs) {
            if (input.empty()) continue;
            const Tensor& value = values.at(input);
            if (constants.count(input) == 0) {
                computes = true;
                data = value.dims;
            } else if (!modelkit::onnx::is_integral(value.type)) {
                weights = true;
                if (shape.empty()) shape = value.dims;
            }
        }
        // What is computed of constants alone is one.
        if (!computes) {
            constants.insert(node.outputs.begin(), node.outputs.end());
            continue;
        }
        result.roundings += 4 + terms_of(node.op_type, data, shape);
        result.rounding_nodes += weights ? 1 : 0;
    }
    return result;
}

// A half is off by 2^-11 of a weight at most. A sum of products each off by a random share up to s
// is off by s / sqrt(3) of the root of their summed squares, which is what a sum of random signs is
// itself: a node adds that share of its values, and n nodes together sqrt(n) times as much. The
// farthest of some thousand outputs is within seven deviations, 4 s. On top, floats: each rounding
// in a chain of sums takes 2^-24 of the largest at worst.
double tolerance_of(const Arithmetic& arithmetic, double most) {
    return most *
           (4 * 0x1p-11 * std::sqrt(arithmetic.rounding_nodes) + 0x1p-24 * arithmetic.roundings);
}

void expect_the_reference(const ReferenceGraph& reference, const ConvertOptions& options) {
    const Converted result = convert_and_prove(reference.bytes, reference.inputs, options);
    expect_proof(result);
    if (testing::Test::HasFatalFailure()) return;
    const Arithmetic arithmetic = arithmetic_of(result.original, reference);
    ASSERT_EQ(result.proof.outputs.size(), reference.expected.size());
    for (size_t i = 0; i < reference.expected.size(); ++i) {
        const Expected& expected = reference.expected[i];
        const ValueProof& proof = result.proof.outputs[i];
        SCOPED_TRACE(expected.name);
        ASSERT_EQ(proof.name, expected.name);
        const std::vector<double> found =
            kept_of(proof.numbers, result.conversion.value_dims.at(expected.name), expected.every);
        ASSERT_EQ(found.size(), expected.values.size());
        const double most = largest(expected.values);
        double worst = 0;
        for (size_t k = 0; k < found.size(); ++k) {
            worst = std::max(worst, std::abs(found[k] - expected.values[k]));
        }
        const double tolerance = tolerance_of(arithmetic, most);
        EXPECT_LE(worst, tolerance) << "of values up to " << most;
        // A tolerance of a tenth would say nothing; a network of 117 such nodes comes to 0.03.
        EXPECT_LE(tolerance, 0.1 * most);
        // And what the proof says is so, the evaluator being within 10^-9 of PyTorch.
        const double proven = proof.by_halves.maximum + proof.bound + 1e-9 * std::max(1.0, most);
        EXPECT_LE(worst, proven);
    }
}

class ProvenCase : public testing::TestWithParam<std::string> {};

TEST_P(ProvenCase, GivesWhatPyTorchGivesOrIsRefusedWithTheReason) {
    ConvertOptions options;
    const auto open = OPEN_SHAPES.find(GetParam());
    if (open != OPEN_SHAPES.end()) options.shapes = open->second;
    const ReferenceGraph reference = read_reference("cases", GetParam(), options.shapes);
    const auto refused = REFUSED_CASES.find(GetParam());
    if (refused == REFUSED_CASES.end()) {
        expect_the_reference(reference, options);
        return;
    }
    const Converted result = convert_only(reference.bytes, options);
    ASSERT_FALSE(result.status) << "was converted";
    EXPECT_NE(result.status.message().find(refused->second), std::string::npos)
        << result.status.message();
    EXPECT_EQ(result.status.message().find('\n'), std::string::npos);
    EXPECT_TRUE(result.conversion.file.empty());
}

INSTANTIATE_TEST_SUITE_P(Small, ProvenCase, testing::ValuesIn(names_in("cases")),
                         [](const auto& info) { return info.param; });

class ProvenNetwork : public testing::TestWithParam<std::string> {};

TEST_P(ProvenNetwork, GivesWhatPyTorchGives) {
    expect_the_reference(read_reference("networks", GetParam()), {});
}

INSTANTIATE_TEST_SUITE_P(Whole, ProvenNetwork, testing::ValuesIn(names_in("networks")),
                         [](const auto& info) { return info.param; });

}  // namespace
