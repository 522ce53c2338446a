// Nodes that hand their input on.
#include <utility>

#include "modelkit/onnx/passes.h"

namespace modelkit::onnx {

namespace {

bool float_type(int64_t type) {
    return type == 1 || type == 10 || type == 11 || type == 16;
}

}  // namespace

bool hands_on(const Graph& graph, const Node& node) {
    if (!node.has_input(0) || !node.has_output(0)) return false;
    if (node.op_type == "Identity") return true;
    // A cast to fewer digits is the exporter's storage, not the network's arithmetic: a note says
    // so.
    if (node.op_type == "Cast") {
        const int64_t to = node.integer("to", 0);
        const auto from = graph.initializers.find(node.inputs[0]);
        if (!float_type(to) || from == graph.initializers.end()) return float_type(to);
        const ElementType type = from->second.type;
        return !is_integral(type) && (type == ElementType::Double) == (to == 11);
    }
    if (node.op_type != "Dropout" || node.has_output(1)) return false;
    if (!node.has_input(2)) return true;
    const auto mode = graph.initializers.find(node.inputs[2]);
    return mode != graph.initializers.end() && mode->second.size() == 1 &&
           mode->second.integer(0) == 0;
}

std::vector<std::string> cast_notes(const Graph& graph) {
    const Uses uses(graph);
    std::vector<std::string> notes;
    for (const Node& node : graph.nodes) {
        const int64_t to = node.integer("to", 0);
        if (node.op_type != "Cast" || (to != 10 && to != 16) || !node.has_output(0) ||
            !uses.is_used(node.outputs[0])) {
            continue;
        }
        notes.push_back("node " + in_quotes(label_of(node)) + ": the cast to " +
                        (to == 10 ? "float16" : "bfloat16") +
                        " is left out, its rounding is not done: the engines go on with floats");
    }
    return notes;
}

void remove_identities(Graph& graph) {
    const Uses uses(graph);
    const std::set<std::string> fixed = fixed_values(graph);
    std::unordered_map<std::string, std::string> stands_for;
    const auto resolved = [&](const std::string& name) {
        const auto found = stands_for.find(name);
        return found == stands_for.end() ? name : found->second;
    };
    std::set<size_t> dead;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        Node& node = graph.nodes[i];
        for (std::string& input : node.inputs) input = resolved(input);
        if (!hands_on(graph, node)) continue;
        // Shapes are integers, and 3 / 2 among integers is 1: the cast has to be computed.
        if (node.op_type == "Cast" && fixed.count(node.outputs[0]) != 0) continue;
        // An output keeps its name, and so its node: it costs no layer.
        if (uses.is_output(node.outputs[0])) continue;
        if (graph.initializers.count(node.inputs[0]) != 0) continue;  // a constant: folded
        stands_for[node.outputs[0]] = node.inputs[0];
        dead.insert(i);
    }
    erase_nodes(graph, dead);
}

}  // namespace modelkit::onnx
