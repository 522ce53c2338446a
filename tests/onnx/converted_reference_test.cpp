// Converted models on the CPU engine against PyTorch.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "onnx/converted_model.h"
#include "onnx/reference_files.h"

namespace {

using namespace modelkit::onnx;
using namespace onnx_reference;
using namespace onnx_test;

using Shapes = std::map<std::string, std::vector<int64_t>>;

// Inputs whose shape the file leaves open.
const std::map<std::string, Shapes> OPEN_SHAPES = {
    {"interpolate_to_other_dynamic", {{"x0", {1, 2, 3, 4}}, {"x1", {1, 3, 6, 8}}}},
};

// What the engines have no layers for, and a part of the line that says so.
const std::map<std::string, std::string> REFUSED = {
    {"average_pool_ceil_with_padding", "count_include_pad with ceil_mode"},
    {"conv_batch_of_2", "a batch of 1 expected, found [2, 2, 4, 5]"},
    {"div", "a constant to divide by"},
    {"div_of_channels", "a constant to divide by"},
    {"elu", "the operator is not supported"},
    {"exp", "the operator is not supported"},
    {"gemm_column_c", "a bias of 4 numbers expected, found [3, 1]"},
    {"gemm_transposed_input", "transA"},
    {"instance_normalization", "the operator is not supported"},
    {"log", "the operator is not supported"},
    {"lstm_batch_first", "a batch of 1 expected, found [2, 5, 3]"},
    {"lstm_batch_of_2", "a batch of 1 expected, found [5, 2, 3]"},
    {"lstm_initial_state", "an initial state of zeros"},
    {"lstm_sequence_lengths", "a batch of 1 expected, found [5, 3, 3]"},
    {"lstm_states_out", "an initial state of zeros"},
    {"matmul_batches", "a batch of 1 expected, found [2, 3, 6]"},
    {"matmul_of_inputs", "the second factor expected to be constant"},
    {"max", "the operator is not supported"},
    {"max_pool_dilated", "dilations of 1 expected"},
    {"min", "the operator is not supported"},
    {"resize_linear_sizes", "a whole factor expected, found 3 to 5 pixels"},
    {"resize_linear_sizes_corners", "a whole factor expected, found 3 to 5 pixels"},
    {"resize_nearest_sizes", "a whole factor expected, found 3 to 7 pixels"},
    {"slice_10", "steps forward expected, found -2"},
    {"slice_13", "steps forward expected, found -2"},
    {"softmax_channels_13", "the engine has none along the channels of 3x4x5"},
    {"softmax_last_11", "the engine has none along the channels of 3x4x5"},
    {"sqrt", "the operator is not supported"},
    {"transpose", "a permutation that leaves pixels where they are"},
};

void convert_and_compare(const std::string& folder, const std::string& name) {
    const auto open = OPEN_SHAPES.find(name);
    ConvertOptions options;
    if (open != OPEN_SHAPES.end()) options.shapes = open->second;
    const ReferenceGraph reference = read_reference(folder, name, options.shapes);
    Graph graph;
    ASSERT_TRUE(read_graph(reference.bytes.data(), reference.bytes.size(), "", graph));
    Conversion conversion;
    const modelkit::Status converted = convert(graph, options, conversion);
    const auto refused = REFUSED.find(name);
    if (refused != REFUSED.end()) {
        ASSERT_FALSE(converted);
        EXPECT_NE(converted.message().find(refused->second), std::string::npos)
            << converted.message();
        EXPECT_EQ(converted.message().find('\n'), std::string::npos);
        EXPECT_TRUE(conversion.file.empty());
        return;
    }
    ASSERT_TRUE(converted) << converted.message();
    const auto found = run_on_cpu(conversion, reference.inputs);
    // Of some hundred thousand weights one draw is as good as another; of three it is not.
    const double margin = folder == "networks" ? 2 : 4;
    const auto bounds = bounds_of(graph, reference.inputs, margin);
    ASSERT_EQ(found.size(), reference.expected.size());
    for (size_t i = 0; i < reference.expected.size(); ++i) {
        const Expected& expected = reference.expected[i];
        SCOPED_TRACE(expected.name);
        std::vector<int64_t> dims = graph.outputs[i].dims;
        const std::vector<double> kept = kept_of(found.at(expected.name), dims, expected.every);
        ASSERT_EQ(kept.size(), expected.values.size());
        const double bound = bounds.at(expected.name);
        double worst = 0;
        for (size_t k = 0; k < kept.size(); ++k)
            worst = std::max(worst, std::abs(kept[k] - expected.values[k]));
        testing::Test::RecordProperty("difference", std::to_string(worst));
        EXPECT_LE(worst, bound) << "of values up to " << largest(expected.values);
        // A bound that lets anything through would prove nothing.
        EXPECT_LE(bound, 0.05 * largest(expected.values));
    }
}

class ConvertedCase : public testing::TestWithParam<std::string> {};

TEST_P(ConvertedCase, AgreesWithPyTorchOrIsRefused) {
    convert_and_compare("cases", GetParam());
}

INSTANTIATE_TEST_SUITE_P(Small, ConvertedCase, testing::ValuesIn(names_in("cases")),
                         [](const auto& info) { return info.param; });

class ConvertedNetwork : public testing::TestWithParam<std::string> {};

TEST_P(ConvertedNetwork, AgreesWithPyTorch) {
    convert_and_compare("networks", GetParam());
}

INSTANTIATE_TEST_SUITE_P(Whole, ConvertedNetwork, testing::ValuesIn(names_in("networks")),
                         [](const auto& info) { return info.param; });

}  // namespace
