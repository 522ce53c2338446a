// Converted models on the CPU engine against PyTorch, with a bound that the converter has no part
// in: it comes from the graph alone, its weights off by what halves can be off.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "onnx/converted_model.h"
#include "onnx/reference_files.h"
#include "onnx/refused_cases.h"

namespace {

using namespace modelkit::onnx;
using namespace onnx_reference;
using namespace onnx_test;

using Shapes = std::map<std::string, std::vector<int64_t>>;

// Inputs whose shape the file leaves open.
const std::map<std::string, Shapes> OPEN_SHAPES = {
    {"interpolate_to_other_dynamic", {{"x0", {1, 2, 3, 4}}, {"x1", {1, 3, 6, 8}}}},
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
    if (folder == "cases" && REFUSED_CASES.count(name) != 0) {
        EXPECT_FALSE(converted) << "was converted";
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

TEST_P(ConvertedCase, AgreesWithPyTorch) {
    convert_and_compare("cases", GetParam());
}

INSTANTIATE_TEST_SUITE_P(Small, ConvertedCase, testing::ValuesIn(names_in("cases")),
                         [](const auto& info) { return info.param; });

// A name that no case has would let nothing be refused, and tell nobody.
TEST(ConvertedCases, ThatAreRefusedAreThere) {
    const std::vector<std::string> names = names_in("cases");
    for (const auto& [name, reason] : REFUSED_CASES) {
        EXPECT_EQ(std::count(names.begin(), names.end(), name), 1) << name;
    }
}

class ConvertedNetwork : public testing::TestWithParam<std::string> {};

TEST_P(ConvertedNetwork, AgreesWithPyTorch) {
    convert_and_compare("networks", GetParam());
}

INSTANTIATE_TEST_SUITE_P(Whole, ConvertedNetwork, testing::ValuesIn(names_in("networks")),
                         [](const auto& info) { return info.param; });

}  // namespace
