// Nodes of constants become constants.
#include <utility>

#include "modelkit/onnx/evaluator.h"
#include "modelkit/onnx/passes.h"

namespace modelkit::onnx {

namespace {

constexpr int64_t MOST_ELEMENTS = int64_t{1} << 27;
constexpr int64_t MOST_STEPS = int64_t{1} << 32;

// The weights of a model are floats, whatever they were computed in.
Tensor as_floats(Tensor tensor) {
    if (is_integral(tensor.type)) return tensor;
    std::vector<float> values(tensor.size());
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(tensor.number(i));
    return Tensor::of_floats(std::move(tensor.dims), std::move(values));
}

}  // namespace

bool fold_node(Graph& graph, const Node& node) {
    for (const std::string& input : node.inputs) {
        if (!input.empty() && graph.initializers.count(input) == 0) return false;
    }
    Graph one;
    one.opset = graph.opset;
    one.ir_version = graph.ir_version;
    one.nodes.push_back(node);
    // Lent for the evaluation, and given back.
    for (const std::string& input : node.inputs) {
        if (input.empty() || one.initializers.count(input) != 0) continue;
        one.initializers.emplace(input, std::move(graph.initializers[input]));
    }
    std::map<std::string, Tensor> values;
    EvaluationLimits limits;
    limits.elements = MOST_ELEMENTS;
    limits.steps = MOST_STEPS;
    const Status done = evaluate(one, {}, values, limits);
    for (auto& [name, tensor] : one.initializers) graph.initializers[name] = std::move(tensor);
    if (!done) return false;
    for (const std::string& output : node.outputs) {
        if (!output.empty()) graph.initializers[output] = as_floats(std::move(values[output]));
    }
    return true;
}

void fold_constants(Graph& graph) {
    std::set<size_t> dead;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (fold_node(graph, graph.nodes[i])) dead.insert(i);
    }
    erase_nodes(graph, dead);
}

}  // namespace modelkit::onnx
