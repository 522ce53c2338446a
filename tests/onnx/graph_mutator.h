// Sound graphs with something wrong.
#pragma once

#include <modelkit/onnx/graph.h>
#include <modelkit/onnx/reader.h>

#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace onnx_test {

using modelkit::onnx::Attribute;
using modelkit::onnx::Graph;
using modelkit::onnx::Node;
using modelkit::onnx::Tensor;

inline const int64_t INTEGERS[] = {0,
                                   1,
                                   -1,
                                   2,
                                   3,
                                   -2,
                                   7,
                                   1000,
                                   65536,
                                   int64_t(1) << 31,
                                   int64_t(1) << 40,
                                   (int64_t(1) << 40) - 1,
                                   std::numeric_limits<int64_t>::max(),
                                   std::numeric_limits<int64_t>::min()};
inline const double NUMBERS[] = {0,
                                 -1,
                                 0.5,
                                 1e30,
                                 -1e300,
                                 std::numeric_limits<double>::infinity(),
                                 std::numeric_limits<double>::quiet_NaN()};
inline const char* const TEXTS[] = {
    "",        "SAME_UPPER", "SAME_LOWER",    "VALID", "linear", "nearest", "align_corners",
    "reflect", "edge",       "bidirectional", "CRD"};

inline const char* const OPERATORS[] = {
    "Conv",    "ConvTranspose", "MaxPool",      "AveragePool", "BatchNormalization",
    "Gemm",    "MatMul",        "LSTM",         "Resize",      "Upsample",
    "Softmax", "Concat",        "Reshape",      "Slice",       "Gather",
    "Pad",     "Split",         "Expand",       "Squeeze",     "Unsqueeze",
    "Where",   "DepthToSpace",  "SpaceToDepth", "ReduceMean"};

/// Puts one thing wrong in a sound graph, by a seed.
class Mutator {
    size_t below(size_t count) { return engine() % count; }
    template <typename List>
    auto& any(List& list) {
        return list[below(std::size(list))];
    }

public:
    explicit Mutator(uint32_t seed) : engine(seed) {}

    void change(Graph& graph) {
        switch (below(8)) {
            case 0:
                graph.opset = modelkit::onnx::OLDEST_OPSET + static_cast<int>(below(11));
                break;
            case 1:
                change_inputs(graph);
                break;
            case 2:
                any(graph.nodes).op_type = any(OPERATORS);
                break;
            case 3:
            case 4:
                change_initializer(graph);
                break;
            default:
                change_attribute(any(graph.nodes));
        }
    }

private:
    void change_inputs(Graph& graph) {
        Node& node = any(graph.nodes);
        switch (below(4)) {
            case 0:
                node.inputs.emplace_back();
                break;
            case 1:
                if (!node.inputs.empty()) node.inputs.pop_back();
                break;
            case 2:
                if (!node.inputs.empty()) any(node.inputs).clear();
                break;
            default: {
                Node& other = any(graph.nodes);
                if (!node.inputs.empty() && !other.inputs.empty())
                    any(node.inputs) = any(other.inputs);
            }
        }
    }

    void change_initializer(Graph& graph) {
        if (graph.initializers.empty()) return;
        auto place = graph.initializers.begin();
        std::advance(place, static_cast<std::ptrdiff_t>(below(graph.initializers.size())));
        Tensor& tensor = place->second;
        if (auto* integers = std::get_if<std::vector<int64_t>>(&tensor.values)) {
            if (!integers->empty()) any(*integers) = any(INTEGERS);
            return;
        }
        switch (below(3)) {
            case 0:
                tensor.dims.push_back(1);
                break;
            case 1:
                if (!tensor.dims.empty()) std::swap(any(tensor.dims), any(tensor.dims));
                break;
            default:
                tensor.dims = {0, any(INTEGERS)};
                tensor.values = std::vector<float>();
        }
    }

    void change_attribute(Node& node) {
        if (node.attributes.empty()) return;
        auto place = node.attributes.begin();
        std::advance(place, static_cast<std::ptrdiff_t>(below(node.attributes.size())));
        Attribute& attribute = place->second;
        if (below(8) == 0) {
            node.attributes.erase(place);
        } else if (!attribute.ints.empty()) {
            if (below(6) == 0) attribute.ints.pop_back();
            for (int64_t& value : attribute.ints)
                if (below(2) == 0) value = any(INTEGERS);
            if (attribute.kind == Attribute::Kind::Int && attribute.ints.empty())
                attribute.ints = {0};
        } else if (!attribute.floats.empty()) {
            any(attribute.floats) = any(NUMBERS);
        } else if (!attribute.strings.empty()) {
            any(attribute.strings) = any(TEXTS);
        }
    }

    std::mt19937 engine;
};

}  // namespace onnx_test
