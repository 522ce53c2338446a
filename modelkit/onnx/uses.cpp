#include <utility>

#include "modelkit/onnx/passes.h"

namespace modelkit::onnx {

Uses::Uses(const Graph& graph) {
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        for (const std::string& output : graph.nodes[i].outputs) {
            if (!output.empty()) makers.emplace(output, i);
        }
        for (const std::string& input : graph.nodes[i].inputs) {
            if (!input.empty()) readers[input].push_back(i);
        }
    }
    for (const ValueInfo& output : graph.outputs) outputs.insert(output.name);
}

std::optional<size_t> Uses::sole_reader(const std::string& value) const {
    const auto found = readers.find(value);
    if (found == readers.end() || found->second.size() != 1 || is_output(value)) return {};
    return found->second[0];
}

std::optional<size_t> Uses::maker(const std::string& value) const {
    const auto found = makers.find(value);
    if (found == makers.end()) return {};
    return found->second;
}

std::set<std::string> fixed_values(const Graph& graph) {
    std::set<std::string> fixed;
    for (const Node& node : graph.nodes) {
        bool all = true;
        for (const std::string& input : node.inputs) {
            all = all && (input.empty() || graph.initializers.count(input) != 0 ||
                          fixed.count(input) != 0);
        }
        if (all || node.op_type == "Shape" || node.op_type == "Size") {
            fixed.insert(node.outputs.begin(), node.outputs.end());
        }
    }
    fixed.erase(std::string());
    return fixed;
}

void erase_nodes(Graph& graph, const std::set<size_t>& dead) {
    if (dead.empty()) return;
    std::vector<Node> kept;
    kept.reserve(graph.nodes.size() - dead.size());
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (dead.count(i) == 0) kept.push_back(std::move(graph.nodes[i]));
    }
    graph.nodes = std::move(kept);
}

void remove_unused(Graph& graph) {
    const std::vector<bool> needed = needed_nodes(graph);
    std::set<std::string> read;
    for (const ValueInfo& output : graph.outputs) read.insert(output.name);
    std::set<size_t> dead;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (needed[i]) {
            read.insert(graph.nodes[i].inputs.begin(), graph.nodes[i].inputs.end());
        } else {
            dead.insert(i);
        }
    }
    erase_nodes(graph, dead);
    for (auto at = graph.initializers.begin(); at != graph.initializers.end();) {
        at = read.count(at->first) != 0 ? std::next(at) : graph.initializers.erase(at);
    }
}

std::string add_initializer(Graph& graph, const std::string& like, Tensor tensor) {
    // A blank keeps these apart from all that exporters write.
    std::string name = like + " folded";
    // Thousands of layers may share one name.
    for (size_t i = graph.initializers.size(); graph.initializers.count(name) != 0; ++i) {
        name = like + " folded " + std::to_string(i);
    }
    graph.initializers.emplace(name, std::move(tensor));
    return name;
}

}  // namespace modelkit::onnx
