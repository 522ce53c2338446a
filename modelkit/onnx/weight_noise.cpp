#include "modelkit/onnx/weight_noise.h"

#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "modelkit/onnx/passes.h"

namespace modelkit::onnx {

namespace {

constexpr double SMALLEST_STEP = 0x1p-25;

bool keeps_constants(const std::string& op_type) {
    return op_type == "Clip" || op_type == "Resize" || op_type == "Upsample" || op_type == "Pad";
}

bool casts_to_integers(const Node& node) {
    if (node.op_type != "Cast") return false;
    const int64_t to = node.integer("to", 0);
    return to != 1 && to != 10 && to != 11 && to != 16;
}

// What constants are that no half stands for: those that a node takes as they are, and all that
// sizes and indices are computed from.
std::set<std::string> exact_constants(const Graph& graph) {
    const std::set<std::string> fixed = fixed_values(graph);
    std::set<std::string> exact;
    for (size_t i = graph.nodes.size(); i-- > 0;) {
        const Node& node = graph.nodes[i];
        bool wanted = keeps_constants(node.op_type) || casts_to_integers(node);
        for (const std::string& output : node.outputs) {
            // Of a tensor only the shape is taken.
            wanted = wanted || (exact.count(output) != 0 && fixed.count(output) != 0 &&
                                node.op_type != "Shape" && node.op_type != "Size");
        }
        if (wanted) exact.insert(node.inputs.begin(), node.inputs.end());
    }
    return exact;
}

// Their own factors, 1 / 9 or 0.75, become weights of a convolution or of a Linear.
bool makes_weights(const std::string& op_type) {
    return op_type == "AveragePool" || op_type == "GlobalAveragePool" || op_type == "ReduceMean" ||
           op_type == "Resize" || op_type == "Upsample" || op_type == "HardSwish" ||
           op_type == "HardSigmoid" || op_type == "LeakyRelu";
}

class Noise {
public:
    Noise(double reach, uint32_t seed) : reach(reach), engine(seed) {}

    double factor() { return 1.0 + reach * unit(); }
    void disturb(Tensor& tensor) {
        if (is_integral(tensor.type) || tensor.type == ElementType::Undefined) return;
        std::vector<double> values = tensor.numbers();
        for (double& value : values) value = value * factor() + SMALLEST_STEP * unit();
        tensor = Tensor::of_doubles(tensor.dims, std::move(values));
    }

private:
    double unit() { return static_cast<double>(engine()) * 0x1p-31 - 1.0; }

    double reach;
    std::mt19937 engine;
};

}  // namespace

Graph with_weight_noise(const Graph& graph, double reach, uint32_t seed) {
    Noise noise(reach, seed);
    const std::set<std::string> exact = exact_constants(graph);
    Graph result = graph;
    for (auto& [name, tensor] : result.initializers) {
        if (exact.count(name) == 0) noise.disturb(tensor);
    }
    result.nodes.clear();
    for (Node node : graph.nodes) {
        if (node.op_type == "Constant" && !node.outputs.empty() &&
            exact.count(node.outputs[0]) == 0) {
            for (auto& [name, attribute] : node.attributes) {
                noise.disturb(attribute.tensor);
                for (double& value : attribute.floats) value *= noise.factor();
            }
        }
        if (!makes_weights(node.op_type) || !node.has_output(0)) {
            result.nodes.push_back(std::move(node));
            continue;
        }
        const std::string own = node.outputs[0] + " before its noise";
        Node product;
        product.name = node.name;
        product.op_type = "Mul";
        product.inputs = {own, own + ", by"};
        product.outputs = {node.outputs[0]};
        result.initializers[product.inputs[1]] = Tensor::of_doubles({}, {noise.factor()});
        node.outputs[0] = own;
        result.nodes.push_back(std::move(node));
        result.nodes.push_back(std::move(product));
    }
    return result;
}

}  // namespace modelkit::onnx
