// Sound graphs with one or two things wrong: an answer or one line, within the limits, and nothing
// outside of its memory (the sanitizers' part).
#include <gtest/gtest.h>
#include <modelkit/onnx/evaluator.h>

#include <map>
#include <string>

#include "onnx/graph_mutator.h"
#include "onnx/reference_files.h"

namespace {

using namespace modelkit::onnx;
using namespace onnx_reference;
using onnx_test::Mutator;

class EvaluatorMutation : public testing::TestWithParam<std::string> {};

TEST_P(EvaluatorMutation, GivesAnAnswerOrOneLine) {
    const ReferenceGraph reference = read_reference("cases", GetParam());
    Graph sound;
    ASSERT_TRUE(read_graph(reference.bytes.data(), reference.bytes.size(), "", sound));
    ASSERT_FALSE(sound.nodes.empty());
    EvaluationLimits limits;
    limits.elements = 1 << 20;
    limits.steps = 1 << 24;
    for (uint32_t seed = 0; seed < 100; ++seed) {
        SCOPED_TRACE(seed);
        Graph graph = sound;
        Mutator mutator(seed);
        mutator.change(graph);
        if (seed % 3 == 0) mutator.change(graph);
        std::map<std::string, Tensor> values;
        const modelkit::Status status = evaluate(graph, reference.inputs, values, limits);
        if (!status) {
            EXPECT_EQ(status.message().find('\n'), std::string::npos) << status.message();
            EXPECT_EQ(status.message().rfind("node \"", 0), 0u) << status.message();
            EXPECT_LT(status.message().size(), 1000u) << status.message();
        }
        for (const auto& [name, tensor] : values) {
            EXPECT_EQ(element_count(tensor.dims), static_cast<int64_t>(tensor.size())) << name;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Small, EvaluatorMutation, testing::ValuesIn(names_in("cases")),
                         [](const auto& info) { return info.param; });

}  // namespace
