// Converted models on the CPU engine against PyTorch's arrays and against the evaluator.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/reference_files.h"

namespace {

using namespace onnx_reference;
using namespace onnx_test;

// What no layers give, and a part of the reason. Everything else in the folder has to convert.
const std::map<std::string, std::string> REFUSED = {
    {"average_pool_ceil_with_padding", "has no one meaning"},
    {"conv_batch_of_2", "a batch of 1 expected"},
    {"div", "the engines have no quotient"},
    {"div_of_channels", "the engines have no quotient"},
    {"elu", "(Elu): the operator is not supported"},
    {"exp", "(Exp): the operator is not supported"},
    {"gemm_column_c", "a bias of 4 numbers expected, found [3, 1]"},
    {"gemm_transposed_input", "the engines do not transpose"},
    {"instance_normalization", "(InstanceNormalization): the operator is not supported"},
    {"log", "(Log): the operator is not supported"},
    {"lstm_batch_first", "a batch of 1 expected"},
    {"lstm_batch_of_2", "a batch of 1 expected"},
    {"lstm_initial_state", "an initial state of zeros expected"},
    {"lstm_sequence_lengths", "a batch of 1 expected"},
    {"lstm_states_out", "an initial state of zeros expected"},
    {"matmul_batches", "a batch of 1 expected"},
    {"matmul_of_inputs", "the second factor expected to be constant"},
    {"max", "(Max): the operator is not supported"},
    {"max_pool_dilated", "dilations of 1 expected"},
    {"min", "(Min): the operator is not supported"},
    {"resize_linear_sizes", "a whole factor expected, found 3 to 5 pixels"},
    {"resize_linear_sizes_corners", "a whole factor expected, found 3 to 5 pixels"},
    {"slice_10", "steps forward expected"},
    {"slice_13", "steps forward expected"},
    {"softmax_channels_13", "the engine has none along the channels of 3x4x5"},
    {"softmax_last_11", "the engine has none along the channels of 3x4x5"},
    {"sqrt", "(Sqrt): the operator is not supported"},
    {"transpose", "a permutation that leaves pixels where they are"},
};

// Inputs whose shape the file leaves open.
const std::map<std::string, std::map<std::string, std::vector<int64_t>>> OPEN_SHAPES = {
    {"interpolate_to_other_dynamic", {{"x0", {1, 2, 3, 4}}, {"x1", {1, 3, 6, 8}}}},
};

// The engine's numbers are as far from PyTorch's as the proof says they are from the evaluator's,
// which is another 10^-9 of the largest value from PyTorch.
void expect_the_reference(const ReferenceGraph& reference, const ConvertOptions& options) {
    const Converted result = convert_and_prove(reference.bytes, reference.inputs, options);
    expect_proof(result);
    if (testing::Test::HasFatalFailure()) return;
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
        const double bound = proof.by_halves.maximum + proof.bound + 1e-9 * std::max(1.0, most);
        for (size_t k = 0; k < found.size(); ++k) {
            ASSERT_NEAR(found[k], expected.values[k], bound) << "element " << k;
        }
        // Halves are off by 2^-12 at most; a network that they move by more than a tenth would
        // make the bound above say nothing.
        EXPECT_LE(proof.by_halves.maximum, 0.1 * std::max(most, 1e-3));
    }
}

class ProvenCase : public testing::TestWithParam<std::string> {};

TEST_P(ProvenCase, GivesWhatPyTorchGivesOrIsRefusedWithTheReason) {
    ConvertOptions options;
    const auto open = OPEN_SHAPES.find(GetParam());
    if (open != OPEN_SHAPES.end()) options.shapes = open->second;
    const ReferenceGraph reference = read_reference("cases", GetParam(), options.shapes);
    const auto refused = REFUSED.find(GetParam());
    if (refused == REFUSED.end()) {
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
