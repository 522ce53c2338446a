#include "graph_text.h"

#include <set>

namespace tool {
namespace {

/// Graphviz strings know two escapes that matter here.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result + "\"";
}

std::string node_name(unsigned int id) {
    return "layer_" + std::to_string(id);
}

const char* fill_of(const PlannedLayer& layer) {
    switch (layer.type) {
        case ZQLayerType_Input:
        case ZQLayerType_TensorInput:
            return "#d9ead3";
        case ZQLayerType_Conv2D:
        case ZQLayerType_Conv2DTranspose:
        case ZQLayerType_FullConnection:
        case ZQLayerType_LSTM:
            return "#cfe2f3";
        case ZQLayerType_DepthWiseConv2D:
        case ZQLayerType_DepthWiseConv2DTranspose:
            return "#d9d2e9";
        case ZQLayerType_ElementWiseOperator:
        case ZQLayerType_Concatenate:
            return "#fff2cc";
        default:
            return "#f3f3f3";
    }
}

}  // namespace

std::string graph_text(const ModelFile& model, const ModelPlan& plan) {
    std::string text =
        "digraph model {\n  label=" + quoted(model.loader.decodeModelID()) +
        ";\n  labelloc=t;\n  node [shape=box, style=filled, fontname=\"sans-serif\"];\n";
    std::set<unsigned short> drawn;
    for (const PlannedLayer& layer : plan.layers) {
        // "\n" of a label is a line end to Graphviz, so it stays outside the quoting.
        std::string label = quoted(std::to_string(layer.id) + " " + layer.kind);
        label.pop_back();
        if (layer.window) {
            const Window& window = *layer.window;
            label += "\\n" + std::to_string(window.kernel_w) + "x" +
                     std::to_string(window.kernel_h) + ", stride " +
                     std::to_string(window.stride_w) + "x" + std::to_string(window.stride_h);
        }
        if (!layer.detail.empty()) label += "\\n" + layer.detail;
        if (!layer.activation.empty()) label += "\\n" + layer.activation;
        label += "\\n" + (layer.size ? size_text(*layer.size) : std::string("size unknown")) + "\"";
        text += "  " + node_name(layer.id) + " [label=" + label + ", fillcolor=\"" +
                fill_of(layer) + "\"];\n";
        drawn.insert(layer.id);
    }
    std::set<unsigned short> missing;
    for (const PlannedLayer& layer : plan.layers) {
        for (const unsigned short bottom : layer.bottoms) {
            if (drawn.count(bottom) == 0 && missing.insert(bottom).second) {
                text += "  " + node_name(bottom) +
                        " [label=" + quoted(std::to_string(bottom) + " missing") +
                        ", style=dashed, color=red];\n";
            }
            text += "  " + node_name(bottom) + " -> " + node_name(layer.id) + ";\n";
        }
    }
    return text + "}\n";
}

}  // namespace tool
