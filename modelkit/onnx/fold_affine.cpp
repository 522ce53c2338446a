// Batch normalisations and constant factors and terms go into the layer before them.
#include <cmath>
#include <utility>

#include "modelkit/onnx/passes.h"

namespace modelkit::onnx {

namespace {

const Tensor* constant(const Graph& graph, const std::string& name) {
    const auto found = graph.initializers.find(name);
    return found == graph.initializers.end() ? nullptr : &found->second;
}

std::optional<AffineNode> of_batch_normalization(const Graph& graph, const Node& node) {
    if (node.inputs.size() != 5 || node.integer("training_mode", 0) != 0 ||
        node.integer("spatial", 1) == 0) {
        return {};
    }
    for (size_t i = 1; i < node.outputs.size(); ++i) {
        if (node.has_output(i)) return {};
    }
    const Tensor* arrays[4];
    for (size_t i = 0; i < 4; ++i) {
        arrays[i] = constant(graph, node.inputs[i + 1]);
        if (arrays[i] == nullptr || is_integral(arrays[i]->type) || arrays[i]->dims.size() != 1 ||
            arrays[i]->dims != arrays[0]->dims || arrays[i]->size() == 0) {
            return {};
        }
    }
    // As a float, which is what the attribute is.
    const double epsilon = node.number("epsilon", static_cast<double>(1e-5f));
    AffineNode result;
    result.per_channel = true;
    const size_t channels = arrays[0]->size();
    for (size_t i = 0; i < channels; ++i) {
        const double scale = arrays[0]->number(i) / std::sqrt(arrays[3]->number(i) + epsilon);
        if (!std::isfinite(scale)) return {};
        result.affine.scale.push_back(scale);
        result.affine.shift.push_back(arrays[1]->number(i) - arrays[2]->number(i) * scale);
    }
    return result;
}

// The axis along which a constant changes, counted from the last; nothing when there are several.
std::optional<int64_t> axis_of(const Tensor& tensor) {
    int64_t axis = 0;
    bool found = false;
    for (size_t i = 0; i < tensor.dims.size(); ++i) {
        if (tensor.dims[i] == 1) continue;
        if (found) return {};
        found = true;
        axis = static_cast<int64_t>(tensor.dims.size() - 1 - i);
    }
    return axis;
}

}  // namespace

std::optional<AffineNode> affine_of(const Graph& graph, const Node& node, size_t rank) {
    if (node.op_type == "BatchNormalization") {
        std::optional<AffineNode> result = of_batch_normalization(graph, node);
        // The channels are the second axis, wherever that lies from the end.
        if (result && rank >= 2) result->channel_from_end = static_cast<int64_t>(rank) - 2;
        return result;
    }
    if (node.op_type == "Neg" && node.inputs.size() == 1) {
        AffineNode result;
        result.affine = {{-1.0}, {0.0}};
        return result;
    }
    const bool add = node.op_type == "Add";
    const bool sub = node.op_type == "Sub";
    const bool mul = node.op_type == "Mul";
    const bool div = node.op_type == "Div";
    if ((!add && !sub && !mul && !div) || node.inputs.size() != 2) return {};
    const Tensor* left = constant(graph, node.inputs[0]);
    const Tensor* right = constant(graph, node.inputs[1]);
    if ((left == nullptr) == (right == nullptr)) return {};
    if (div && left != nullptr) return {};
    const Tensor& number = left != nullptr ? *left : *right;
    if (is_integral(number.type) || number.size() == 0) return {};
    // A constant with more axes than the tensor would give it some.
    if (rank != 0 && number.dims.size() > rank) return {};
    AffineNode result;
    result.data_input = left != nullptr ? 1 : 0;
    const std::optional<int64_t> axis = axis_of(number);
    if (!axis) return {};
    result.per_channel = number.size() != 1;
    result.channel_from_end = *axis;
    for (size_t i = 0; i < number.size(); ++i) {
        const double value = number.number(i);
        double scale = 1.0;
        double shift = 0.0;
        if (add) shift = value;
        if (sub && left == nullptr) shift = -value;
        if (sub && left != nullptr) {
            scale = -1.0;
            shift = value;
        }
        if (mul) scale = value;
        if (div) scale = 1.0 / value;
        if (!std::isfinite(scale) || !std::isfinite(shift)) return {};
        result.affine.scale.push_back(scale);
        result.affine.shift.push_back(shift);
    }
    return result;
}

namespace {

// How the outputs of a layer lie in its weights: `outer` blocks of `channels` blocks of `inner`.
struct WeightLayout {
    size_t outer = 1;
    size_t channels = 0;
    size_t inner = 1;
    size_t rank = 0;               ///< of the layer's output
    int64_t channel_from_end = 0;  ///< of the output's channels
};

std::optional<WeightLayout> layout_of(const Node& node, const Tensor& weights) {
    const std::vector<int64_t>& dims = weights.dims;
    WeightLayout layout;
    layout.rank = dims.size();
    const auto product = [&](size_t from, size_t to) {
        size_t count = 1;
        for (size_t i = from; i < to; ++i) count *= static_cast<size_t>(dims[i]);
        return count;
    };
    if (node.op_type == "Gemm" && dims.size() == 2) {
        const bool transposed = node.integer("transB", 0) != 0;
        layout.channels = static_cast<size_t>(dims[transposed ? 0 : 1]);
        layout.outer = transposed ? 1 : static_cast<size_t>(dims[0]);
        layout.inner = transposed ? static_cast<size_t>(dims[1]) : 1;
        return layout;
    }
    if (dims.size() < 3) return {};
    layout.channel_from_end = static_cast<int64_t>(dims.size()) - 2;
    if (node.op_type == "Conv") {
        layout.channels = static_cast<size_t>(dims[0]);
        layout.inner = product(1, dims.size());
        return layout;
    }
    // The outputs of one group are the second axis; several groups repeat it.
    if (node.op_type == "ConvTranspose" && node.integer("group", 1) == 1) {
        layout.outer = static_cast<size_t>(dims[0]);
        layout.channels = static_cast<size_t>(dims[1]);
        layout.inner = product(2, dims.size());
        return layout;
    }
    return {};
}

// `shared`: other layers read the weights, which costs as many of `copies`.
bool fold_into(Graph& graph, Node& layer, const Node& node, const std::string& data, bool shared,
               int64_t& copies) {
    const Tensor* weights = layer.has_input(1) ? constant(graph, layer.inputs[1]) : nullptr;
    if (weights == nullptr || is_integral(weights->type)) return false;
    const std::optional<WeightLayout> layout = layout_of(layer, *weights);
    if (!layout || layout->channels == 0 ||
        weights->size() != layout->outer * layout->channels * layout->inner) {
        return false;
    }
    const bool gemm = layer.op_type == "Gemm";
    if (gemm && (layer.number("alpha", 1.0) != 1.0 || layer.number("beta", 1.0) != 1.0)) {
        return false;
    }
    const std::optional<AffineNode> found = affine_of(graph, node, layout->rank);
    if (!found || node.inputs[found->data_input] != data) return false;
    const Affine& affine = found->affine;
    if (found->per_channel && (affine.scale.size() != layout->channels ||
                               found->channel_from_end != layout->channel_from_end)) {
        return false;
    }
    const Tensor* bias = layer.has_input(2) ? constant(graph, layer.inputs[2]) : nullptr;
    if (layer.has_input(2) && bias == nullptr) return false;
    if (bias != nullptr && bias->size() != layout->channels && bias->size() != 1) return false;
    // A column of as many numbers has one for each row of the result, not for each channel.
    if (bias != nullptr && bias->size() != 1 &&
        bias->dims.back() != static_cast<int64_t>(layout->channels)) {
        return false;
    }

    const auto size = static_cast<int64_t>(weights->size());
    if (shared && size > copies) return false;
    if (shared) copies -= size;

    const auto scale = [&](size_t c) { return affine.scale[found->per_channel ? c : 0]; };
    const auto shift = [&](size_t c) { return affine.shift[found->per_channel ? c : 0]; };
    const std::vector<int64_t> dims = weights->dims;
    // The bias may be the weights themselves, so it comes first.
    std::vector<float> moved(layout->channels);
    for (size_t c = 0; c < layout->channels; ++c) {
        const double old = bias == nullptr ? 0.0 : bias->number(bias->size() == 1 ? 0 : c);
        moved[c] = static_cast<float>(old * scale(c) + shift(c));
    }
    // What nothing else reads is changed where it is.
    auto* floats = std::get_if<std::vector<float>>(&graph.initializers.at(layer.inputs[1]).values);
    const bool in_place = floats != nullptr && !shared;
    std::vector<float> scaled = in_place ? std::move(*floats) : std::vector<float>(weights->size());
    size_t at = 0;
    for (size_t o = 0; o < layout->outer; ++o) {
        for (size_t c = 0; c < layout->channels; ++c) {
            for (size_t i = 0; i < layout->inner; ++i, ++at) {
                const double number =
                    in_place ? static_cast<double>(scaled[at]) : weights->number(at);
                scaled[at] = static_cast<float>(number * scale(c));
            }
        }
    }
    const auto channels = static_cast<int64_t>(layout->channels);
    layer.inputs[1] =
        add_initializer(graph, layer.inputs[1], Tensor::of_floats(dims, std::move(scaled)));
    const std::string like = layer.has_input(2) ? layer.inputs[2] : layer.inputs[1];
    layer.inputs.resize(3);
    layer.inputs[2] =
        add_initializer(graph, like + " bias", Tensor::of_floats({channels}, std::move(moved)));
    layer.outputs[0] = node.outputs[0];
    return true;
}

}  // namespace

void fold_affine(Graph& graph) {
    const Uses uses(graph);
    std::set<size_t> dead;
    std::set<std::string> made;  // by earlier turns, for one layer each
    // Weights that several layers share are copied for each: a few bytes could ask for any number
    // of copies. What is beyond stays a layer behind the layer.
    int64_t copies = 4 * constant_elements(graph) + (int64_t{1} << 20);
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        Node& layer = graph.nodes[i];
        const bool holds =
            layer.op_type == "Conv" || layer.op_type == "ConvTranspose" || layer.op_type == "Gemm";
        if (!holds || layer.outputs.size() != 1) continue;
        for (;;) {
            const std::string data = layer.outputs[0];
            const std::optional<size_t> reader = uses.sole_reader(data);
            if (!reader || !graph.nodes[*reader].has_output(0)) break;
            // The former weights go when nothing else reads them: a model is in memory once.
            const std::vector<std::string> before = layer.inputs;
            const auto its_own = [&](size_t k) {
                return k < before.size() &&
                       (uses.sole_reader(before[k]) == i || made.count(before[k]) != 0);
            };
            if (!fold_into(graph, layer, graph.nodes[*reader], data, !its_own(1), copies)) break;
            dead.insert(*reader);
            for (size_t k = 1; k < before.size(); ++k) {
                if (its_own(k)) graph.initializers.erase(before[k]);
            }
            made.insert({layer.inputs[1], layer.inputs[2]});
        }
    }
    erase_nodes(graph, dead);
}

}  // namespace modelkit::onnx
