// What a Pad puts around a tensor becomes the padding of the layer behind.
#include <limits>
#include <utility>

#include "modelkit/onnx/passes.h"

namespace modelkit::onnx {

namespace {

/// The fields of the format hold no more, and sums of two stay far from overflowing.
constexpr int64_t MOST_PADDING = 65535;

}  // namespace

std::optional<PadNode> pad_of(const Graph& graph, const Node& node) {
    PadNode result;
    result.mode = node.text("mode", "constant");
    if (graph.opset < 11) {
        result.pads = node.integers("pads");
        result.value = node.number("value", 0.0);
    } else {
        const auto pads =
            node.has_input(1) ? graph.initializers.find(node.inputs[1]) : graph.initializers.end();
        if (pads == graph.initializers.end() || node.has_input(3)) return {};
        result.pads = pads->second.integers();
        if (node.has_input(2)) {
            const auto value = graph.initializers.find(node.inputs[2]);
            if (value == graph.initializers.end() || value->second.size() != 1) return {};
            result.value = value->second.number(0);
        }
    }
    if (result.pads.empty() || result.pads.size() % 2 != 0) return {};
    for (const int64_t pad : result.pads) {
        if (pad < -MOST_PADDING || pad > MOST_PADDING) return {};
    }
    return result;
}

namespace {

constexpr double LOWEST_FLOAT = static_cast<double>(std::numeric_limits<float>::lowest());

bool merge_into(Node& layer, const PadNode& pad) {
    const size_t rank = pad.pads.size() / 2;
    const std::string automatic = layer.text("auto_pad", "NOTSET");
    // What a maximum pads with is below every number: -inf, or the lowest float.
    const bool maximum = layer.op_type == "MaxPool";
    const bool pads_alike = maximum
                                ? pad.value <= LOWEST_FLOAT && layer.integer("ceil_mode", 0) == 0
                                : pad.value == 0.0;
    if (pad.mode != "constant" || !pads_alike || rank < 3 ||
        (automatic != "NOTSET" && automatic != "VALID")) {
        return false;
    }
    const size_t spatial = rank - 2;
    std::vector<int64_t> pads(2 * spatial, 0);
    if (automatic == "NOTSET") pads = layer.integers("pads", pads);
    if (pads.size() != 2 * spatial) return false;
    bool padded = false;
    for (const int64_t own : pads) {
        if (own < 0 || own > MOST_PADDING) return false;
        padded = padded || own != 0;
    }
    for (size_t i = 0; i < rank; ++i) {
        const int64_t begin = pad.pads[i];
        const int64_t end = pad.pads[rank + i];
        if (begin < 0 || end < 0 || (i < 2 && (begin != 0 || end != 0))) return false;
        if (i < 2) continue;
        pads[i - 2] += begin;
        pads[spatial + i - 2] += end;
    }
    if (layer.op_type == "AveragePool") {
        // The zeros of the Pad count, so the layer's own must, too.
        if (padded && layer.integer("count_include_pad", 0) == 0) return false;
        if (layer.integer("ceil_mode", 0) != 0) return false;
        Attribute& count = layer.attributes["count_include_pad"];
        count = Attribute();
        count.kind = Attribute::Kind::Int;
        count.ints = {1};
    }
    Attribute& attribute = layer.attributes["pads"];
    attribute = Attribute();
    attribute.kind = Attribute::Kind::Ints;
    attribute.ints = std::move(pads);
    layer.attributes.erase("auto_pad");
    return true;
}

}  // namespace

void merge_pads(Graph& graph) {
    const Uses uses(graph);
    std::set<size_t> dead;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        const Node& node = graph.nodes[i];
        if (node.op_type != "Pad" || !node.has_input(0) || !node.has_output(0)) continue;
        const std::optional<PadNode> pad = pad_of(graph, node);
        const std::optional<size_t> reader = uses.sole_reader(node.outputs[0]);
        if (!pad || !reader) continue;
        Node& layer = graph.nodes[*reader];
        const bool takes =
            layer.op_type == "Conv" || layer.op_type == "AveragePool" || layer.op_type == "MaxPool";
        if (!takes || layer.inputs[0] != node.outputs[0] || !merge_into(layer, *pad)) continue;
        layer.inputs[0] = node.inputs[0];
        dead.insert(i);
    }
    erase_nodes(graph, dead);
}

void simplify(Graph& graph, ConstantFolder& folder) {
    remove_unused(graph);
    folder.fold_all();
    remove_identities(graph);
    merge_pads(graph);
    fold_affine(graph);
    remove_unused(graph);
    folder.count_readers();
}

}  // namespace modelkit::onnx
