#include "modelkit/onnx/weight_noise.h"

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "modelkit/onnx/passes.h"

namespace modelkit::onnx {

namespace {

// Half of what lies between two halves below 2^-14. Of weights below 16 times that rounding may
// take more than a sixteenth, up to all: the noise does not go so far, or it would excuse a channel
// that rounding wipes out.
constexpr double SMALLEST_STEP = 0x1p-25;
constexpr double SMALLEST_KEPT = 16 * SMALLEST_STEP;

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

// The clamps that are no operator of the engines: all but those from 0 to 6 and from 0 on, which
// factors before and behind make of them.
class ScaledClips {
public:
    explicit ScaledClips(const Graph& graph) : graph(graph) {
        for (const Node& node : graph.nodes) {
            if (node.op_type == "Constant" && node.has_output(0)) {
                constants[node.outputs[0]] = &node;
            }
        }
    }

    bool contain(const Node& node) const {
        constexpr double INFINITE = std::numeric_limits<double>::infinity();
        return node.op_type == "Clip" && !(is_plain(limit_of(node, 1, "min", -INFINITE)) &&
                                           is_plain(limit_of(node, 2, "max", INFINITE)));
    }

private:
    static bool is_plain(double limit) {
        const double size = std::fabs(limit);
        return size == 0 || size == 6 ||
               size >= static_cast<double>(std::numeric_limits<float>::max());
    }

    // Without a limit, or with one that is computed, `otherwise`.
    double limit_of(const Node& clip, size_t input, const char* attribute, double otherwise) const {
        if (graph.opset < 11) return clip.number(attribute, otherwise);
        if (!clip.has_input(input)) return otherwise;
        const auto found = graph.initializers.find(clip.inputs[input]);
        if (found != graph.initializers.end()) {
            return found->second.size() == 1 ? found->second.number(0) : otherwise;
        }
        const auto constant = constants.find(clip.inputs[input]);
        if (constant == constants.end()) return otherwise;
        const Attribute* value = constant->second->find("value", Attribute::Kind::Tensor);
        if (value != nullptr && value->tensor.size() == 1) return value->tensor.number(0);
        return constant->second->number("value_float", otherwise);
    }

    const Graph& graph;
    std::map<std::string, const Node*> constants;
};

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
        for (double& value : values) {
            const double step = std::fabs(value) < SMALLEST_KEPT ? 0.0 : SMALLEST_STEP;
            value = value * factor() + step * unit();
        }
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
    const ScaledClips clips(graph);
    for (Node node : graph.nodes) {
        if (node.op_type == "Constant" && !node.outputs.empty() &&
            exact.count(node.outputs[0]) == 0) {
            for (auto& [name, attribute] : node.attributes) {
                noise.disturb(attribute.tensor);
                for (double& value : attribute.floats) value *= noise.factor();
            }
        }
        const bool has_factor = makes_weights(node.op_type) || clips.contain(node);
        if (!has_factor || !node.has_output(0)) {
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
