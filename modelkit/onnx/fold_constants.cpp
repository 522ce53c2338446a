// Nodes of constants become constants.
#include <algorithm>
#include <utility>

#include "modelkit/onnx/evaluator.h"
#include "modelkit/onnx/passes.h"
#include "modelkit/onnx/refusal.h"

namespace modelkit::onnx {

namespace {

constexpr int64_t MORE_HELD = int64_t{1} << 22;
constexpr int64_t MORE_COMPUTED = int64_t{1} << 26;
constexpr int64_t MOST_STEPS = int64_t{1} << 32;

}  // namespace

int64_t constant_elements(const Graph& graph) {
    size_t count = 0;
    for (const auto& [name, tensor] : graph.initializers) count += tensor.size();
    for (const Node& node : graph.nodes) {
        for (const auto& [name, attribute] : node.attributes) count += attribute.tensor.size();
    }
    return static_cast<int64_t>(count);
}

ConstantFolder::ConstantFolder(Graph& graph) : graph(graph), own(constant_elements(graph)) {}

void ConstantFolder::count_readers() {
    readers.clear();
    for (const Node& node : graph.nodes) {
        for (const std::string& input : node.inputs) ++readers[input];
    }
    for (const ValueInfo& output : graph.outputs) ++readers[output.name];
    for (auto at = computed_sizes.begin(); at != computed_sizes.end();) {
        if (graph.initializers.count(at->first) != 0) {
            ++at;
            continue;
        }
        held -= at->second;
        at = computed_sizes.erase(at);
    }
}

void ConstantFolder::hold(const std::string& name, Tensor tensor) {
    const auto size = static_cast<int64_t>(tensor.size());
    held += size;
    computed_sizes[name] = size;
    graph.initializers[name] = std::move(tensor);
}

void ConstantFolder::release_inputs(const Node& node) {
    for (const std::string& input : node.inputs) {
        const auto count = readers.find(input);
        if (count == readers.end() || count->second == 0 || --count->second != 0) continue;
        graph.initializers.erase(input);
        const auto size = computed_sizes.find(input);
        if (size == computed_sizes.end()) continue;
        held -= size->second;
        computed_sizes.erase(size);
    }
}

bool ConstantFolder::fold(const Node& node) {
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
    const int64_t room = 2 * own + MORE_HELD - held;
    EvaluationLimits left;
    left.elements = std::min(room, 64 * own + MORE_COMPUTED - computed);
    left.steps = MOST_STEPS - steps;
    const EvaluationLimits before = left;
    std::map<std::string, Tensor> values;
    const Status done = evaluate_within(left, one, {}, values);
    computed += before.elements - left.elements;
    steps += before.steps - left.steps;
    for (auto& [name, tensor] : one.initializers) graph.initializers[name] = std::move(tensor);
    require(left.exceeded.empty(), "constants computed from constants, for a file of " +
                                       std::to_string(own) + " numbers: " + left.exceeded);
    if (!done) return false;
    release_inputs(node);
    for (const std::string& output : node.outputs) {
        if (output.empty()) continue;
        const auto count = readers.find(output);
        if (count == readers.end() || count->second == 0) continue;
        hold(output, std::move(values[output]));
    }
    return true;
}

// The tensor of a Constant stays the one that was read.
bool ConstantFolder::take_constant(Node& node) {
    if (node.op_type != "Constant" || node.attributes.size() != 1 || node.outputs.size() != 1) {
        return false;
    }
    Attribute& value = node.attributes.begin()->second;
    if (value.kind != Attribute::Kind::Tensor) return false;
    graph.initializers[node.outputs[0]] = std::move(value.tensor);
    return true;
}

void ConstantFolder::fold_all() {
    count_readers();
    const Uses uses(graph);
    std::unordered_map<std::string, std::string> stands_for;
    std::set<size_t> dead;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        Node& node = graph.nodes[i];
        for (std::string& input : node.inputs) {
            const auto other = stands_for.find(input);
            if (other != stands_for.end()) input = other->second;
        }
        if (take_constant(node)) {
            dead.insert(i);
            continue;
        }
        // A constant under another name is no further constant.
        const auto from =
            node.has_input(0) ? graph.initializers.find(node.inputs[0]) : graph.initializers.end();
        if (from != graph.initializers.end() && !is_integral(from->second.type) &&
            hands_on(graph, node) && !uses.is_output(node.outputs[0])) {
            stands_for[node.outputs[0]] = from->first;
            readers[from->first] += readers[node.outputs[0]];
            release_inputs(node);
            dead.insert(i);
            continue;
        }
        try {
            if (fold(node)) dead.insert(i);
        } catch (const Refusal& refusal) {
            refuse("node " + in_quotes(label_of(node)) + " (" + printable(node.op_type) +
                   "): " + refusal.text);
        }
    }
    erase_nodes(graph, dead);
}

}  // namespace modelkit::onnx
