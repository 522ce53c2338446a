// A recurrent network fed frame by frame: the engine's state goes on from run to run, for which the
// graph has no word.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "onnx/converted_model.h"
#include "onnx/reference_files.h"

namespace {

using namespace modelkit::onnx;
using namespace onnx_reference;
using namespace onnx_test;

constexpr size_t FRAMES = 8;
constexpr size_t BANDS = 40;

Tensor frame_of(const ReferenceGraph& reference, size_t frame) {
    return Tensor::of_floats(
        reference.inputs.begin()->second.dims,
        testing_support::uniform_fill(static_cast<uint32_t>(frame + 1), -2, 2, BANDS));
}

// The output of all frames by the evaluator, the recurrent node's last state handed on.
std::vector<double> evaluated_stream(Graph graph, const ReferenceGraph& reference) {
    const std::string input = graph.inputs[0].name;
    Node* cell = nullptr;
    for (Node& node : graph.nodes)
        if (node.op_type == "LSTM") cell = &node;
    if (cell == nullptr) return {};
    cell->inputs.resize(7);
    cell->outputs.resize(3);
    if (cell->outputs[1].empty()) cell->outputs[1] = "last h";
    if (cell->outputs[2].empty()) cell->outputs[2] = "last c";
    const std::vector<std::string> after = {cell->outputs[1], cell->outputs[2]};
    std::vector<double> results;
    for (size_t frame = 0; frame < FRAMES; ++frame) {
        std::map<std::string, Tensor> values;
        const modelkit::Status status =
            evaluate(graph, {{input, frame_of(reference, frame)}}, values);
        EXPECT_TRUE(status) << status.message();
        if (!status) break;
        const std::vector<double> result = values.at(graph.outputs[0].name).numbers();
        results.insert(results.end(), result.begin(), result.end());
        for (size_t i = 0; i < 2; ++i) {
            const std::string name = "state " + std::to_string(i);
            cell->inputs[5 + i] = name;
            graph.initializers[name] = values.at(after[i]);
        }
    }
    return results;
}

TEST(StreamedNetwork, GoesOnFromFrameToFrameAsPyTorchDoes) {
    const ReferenceGraph reference = read_reference("networks", "one_frame_denoiser");
    const std::vector<double> expected =
        read_doubles(FOLDER + "networks/one_frame_denoiser.stream.npy");
    ASSERT_EQ(expected.size(), FRAMES * BANDS);
    Graph graph;
    ASSERT_TRUE(read_graph(reference.bytes.data(), reference.bytes.size(), "", graph));

    const std::vector<double> exact = evaluated_stream(graph, reference);
    ASSERT_EQ(exact.size(), expected.size());
    for (size_t i = 0; i < exact.size(); ++i) EXPECT_NEAR(exact[i], expected[i], 1e-9) << i;
    double bound = 0;
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        const std::vector<double> off = evaluated_stream(shaken(graph, seed), reference);
        ASSERT_EQ(off.size(), exact.size());
        for (size_t i = 0; i < exact.size(); ++i)
            bound = std::max(bound, 2 * std::abs(off[i] - exact[i]));
    }
    EXPECT_LT(bound, 0.01);

    Conversion conversion;
    const modelkit::Status converted = convert(graph, ConvertOptions(), conversion);
    ASSERT_TRUE(converted) << converted.message();
    const testing_support::TemporaryFile file(conversion.file);
    ZQNetLoader loader;
    ASSERT_TRUE(loader.LoadFile(file.path(), false)) << loader.failure();
    TarnoCPU::TarnoNet net;
    net.load_tarno_net_with_inference_config(loader, nullptr);
    net.setNetSize(static_cast<int>(loader.getModelBaseW()),
                   static_cast<int>(loader.getModelBaseH()));
    for (const char* pass : {"first", "after a reset"}) {
        SCOPED_TRACE(pass);
        net.reset_lstm_state();
        for (size_t frame = 0; frame < FRAMES; ++frame) {
            const auto found =
                run_net(net, loader, conversion,
                        {{conversion.names.inputs[0].name, frame_of(reference, frame)}},
                        conversion.names.outputs[0]);
            ASSERT_EQ(found.size(), BANDS);
            for (size_t i = 0; i < BANDS; ++i)
                EXPECT_NEAR(found[i], expected[frame * BANDS + i], bound) << frame << " " << i;
        }
    }
}

}  // namespace
