// A graph as a model file on the CPU engine, and what half weights may change of its outputs.
#pragma once

#include <gtest/gtest.h>
#include <modelkit/onnx/converter.h>
#include <modelkit/onnx/evaluator.h>
#include <tarno/cpu.h>
#include <tarno/model.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/temporary_file.h"

namespace onnx_test {

using modelkit::onnx::Conversion;
using modelkit::onnx::Graph;
using modelkit::onnx::Node;
using modelkit::onnx::Tensor;

using Inputs = std::map<std::string, Tensor>;

/// One run of a net built from a converted model: the numbers of one output in the order of
/// channels, rows and columns.
inline std::vector<double> run_net(const TarnoCPU::TarnoNet& net, const ZQNetLoader& loader,
                                   const Conversion& conversion, const Inputs& inputs,
                                   const modelkit::ModelNames::Tensor& output) {
    const auto records = loader.getLayersInfo();
    TarnoCPU::TarnoNetExtractor extractor = net.create_extractor();
    for (size_t i = 0; i < conversion.names.inputs.size(); ++i) {
        const auto& input = conversion.names.inputs[i];
        const ZQLayerInfo& record = *records.at(static_cast<unsigned short>(input.layer));
        int c = 1;
        int h = 1;
        int w = 1;
        if (record.type == ZQLayerType_Input) {
            c = record.out_shape->channels;
            h = static_cast<int>(input.dims[2]);
            w = static_cast<int>(input.dims[3]);
        } else {
            const auto& shape = static_cast<const ZQLayerInfo_TensorInput&>(record).out_tensor;
            c = shape.dims[0];
            w = shape.dims[1];
        }
        std::vector<float> values;
        for (const double value : inputs.at(input.name).numbers())
            values.push_back(static_cast<float>(value));
        EXPECT_EQ(values.size(), static_cast<size_t>(c) * h * w) << input.name;
        const TarnoCPU::Mat mat = TarnoCPU::Mat::from_float_array(
            values.data(), w, h, c, TarnoCPU::TensorShape::CHW, nullptr);
        EXPECT_EQ(extractor.input(static_cast<int>(i), mat), 0);
    }
    int position = -1;
    for (size_t i = 0; i < net.layers.size(); ++i)
        if (net.layers[i]->id == output.layer) position = static_cast<int>(i);
    TarnoCPU::Mat blob;
    EXPECT_EQ(extractor.extract(position, blob), 0) << output.name;
    const float* from = blob.ptr<float>();
    if (from == nullptr) return {};
    return std::vector<double>(from, from + blob.shape.total());
}

/// Runs a converted model by the default rule, from a fresh state for each output.
inline std::map<std::string, std::vector<double>> run_on_cpu(const Conversion& conversion,
                                                             const Inputs& inputs) {
    std::map<std::string, std::vector<double>> outputs;
    const testing_support::TemporaryFile file(conversion.file);
    ZQNetLoader loader;
    EXPECT_TRUE(loader.LoadFile(file.path(), false)) << loader.failure();
    TarnoCPU::TarnoNet net;
    net.load_tarno_net_with_inference_config(loader, nullptr);
    net.setNetSize(static_cast<int>(loader.getModelBaseW()),
                   static_cast<int>(loader.getModelBaseH()));
    for (const auto& output : conversion.names.outputs) {
        net.reset_lstm_state();
        outputs[output.name] = run_net(net, loader, conversion, inputs, output);
    }
    return outputs;
}

/// The graph with all its weights, and all means that it takes, off by as much as halves and float
/// sums can make them: 2^-11 for a half, a quarter more for float sums. A float sum of n products
/// is the exact sum of products each off by at most n * 2^-24, with n up to 1152 here.
inline Graph shaken(const Graph& graph, uint32_t seed) {
    std::mt19937 engine(seed);
    const auto factor = [&engine] {
        const double unit = static_cast<double>(engine()) * 0x1p-31 - 1;
        return 1 + 1.25 * 0x1p-11 * unit;
    };
    const auto shake = [&factor](Tensor& tensor) {
        if (modelkit::onnx::is_integral(tensor.type)) return;
        std::vector<double> values = tensor.numbers();
        // Below 2^-14 halves lie 2^-24 apart.
        for (double& value : values) value = value * factor() + (factor() - 1) * 0x1p-14;
        tensor = Tensor::of_doubles(tensor.dims, std::move(values));
    };
    Graph result = graph;
    result.nodes.clear();
    for (auto& [name, tensor] : result.initializers) {
        bool exact = false;
        for (const Node& node : graph.nodes) {
            const bool reads =
                std::find(node.inputs.begin(), node.inputs.end(), name) != node.inputs.end();
            // Bounds, scales and the state that a stream starts from are no weights.
            exact = exact || (reads && (node.op_type == "Clip" || node.op_type == "Resize" ||
                                        node.op_type == "Upsample" || node.op_type == "Pad"));
        }
        if (!exact) shake(tensor);
    }
    int added = 0;
    for (Node node : graph.nodes) {
        const bool takes_means = node.op_type.find("AveragePool") != std::string::npos ||
                                 node.op_type == "ReduceMean" || node.op_type == "Resize" ||
                                 node.op_type == "Upsample";
        if (node.op_type == "Constant") {
            const auto value = node.attributes.find("value");
            bool exact = false;
            for (const Node& reader : graph.nodes)
                for (const std::string& input : reader.inputs)
                    exact = exact || (input == node.outputs[0] &&
                                      (reader.op_type == "Clip" || reader.op_type == "Resize" ||
                                       reader.op_type == "Upsample" || reader.op_type == "Pad"));
            if (value != node.attributes.end() && !exact) shake(value->second.tensor);
        }
        if (!takes_means) {
            result.nodes.push_back(std::move(node));
            continue;
        }
        const std::string to = node.outputs[0];
        const std::string mean = to + " before its shaking";
        const std::string by = to + " shaken by";
        node.outputs[0] = mean;
        result.nodes.push_back(std::move(node));
        Node product;
        product.name = "shaking " + std::to_string(added++);
        product.op_type = "Mul";
        product.inputs = {mean, by};
        product.outputs = {to};
        result.nodes.push_back(std::move(product));
        result.initializers[by] = Tensor::of_doubles({}, {factor()});
    }
    return result;
}

/// How far halves and float arithmetic may bring each output from what the graph means: the largest
/// of four seeded draws times `margin`, since a draw is not the worst, and at least what 16
/// roundings in float make of the largest value.
inline std::map<std::string, double> bounds_of(const Graph& graph,
                                               const std::map<std::string, Tensor>& inputs,
                                               double margin) {
    std::map<std::string, double> bounds;
    std::map<std::string, Tensor> exact;
    EXPECT_TRUE(evaluate(graph, inputs, exact));
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        std::map<std::string, Tensor> values;
        const modelkit::Status status = evaluate(shaken(graph, seed), inputs, values);
        EXPECT_TRUE(status) << status.message();
        if (!status) break;
        for (const auto& output : graph.outputs) {
            const std::vector<double> a = exact.at(output.name).numbers();
            const std::vector<double> b = values.at(output.name).numbers();
            double& bound = bounds[output.name];
            for (size_t i = 0; i < a.size(); ++i) {
                bound = std::max(bound, margin * std::abs(a[i] - b[i]));
                bound = std::max(bound, 16 * 0x1p-24 * std::abs(a[i]));
            }
        }
    }
    return bounds;
}

}  // namespace onnx_test
