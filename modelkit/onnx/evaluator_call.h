// One node under evaluation: its inputs, its outputs, and what it may still use. Part of the
// evaluator.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "modelkit/onnx/evaluator.h"
#include "modelkit/onnx/graph.h"

namespace modelkit::onnx::evaluation {

using Dims = std::vector<int64_t>;

/// Why a node is refused. Thrown by operators and caught by `evaluate`.
struct Refusal {
    std::string reason;
};

/// A tensor's values as doubles, copied only where they are stored otherwise.
class Numbers {
public:
    explicit Numbers(const Tensor& tensor) {
        if (const auto* list = std::get_if<std::vector<double>>(&tensor.values)) {
            values = list;
        } else {
            own = tensor.numbers();
        }
    }
    Numbers(const Numbers&) = delete;
    Numbers& operator=(const Numbers&) = delete;

    const std::vector<double>& list() const { return values != nullptr ? *values : own; }
    double operator[](size_t index) const { return list()[index]; }
    const double* data() const { return list().data(); }

private:
    const std::vector<double>* values = nullptr;
    std::vector<double> own;
};

class Call {
public:
    /// `inputs` has null for an optional input left out.
    Call(const Node& node, int opset, std::vector<const Tensor*> inputs, EvaluationLimits& left)
        : node(node),
          opset(opset),
          outputs(node.outputs.size()),
          inputs(std::move(inputs)),
          left(left) {}

    const Node& node;
    const int opset;
    std::vector<Tensor> outputs;  ///< one for each of the node's, in order

    size_t input_count() const { return inputs.size(); }
    bool has(size_t index) const { return index < inputs.size() && inputs[index] != nullptr; }
    const Tensor& input(size_t index) const;
    /// The input, of a floating-point type.
    const Tensor& real(size_t index) const;
    /// The elements of an integral input of at most one dimension, at most 64.
    std::vector<int64_t> list(size_t index) const;
    /// The only element of an input.
    double scalar(size_t index) const;

    [[noreturn]] void refuse(const std::string& reason) const { throw Refusal{reason}; }
    void require(bool holds, const std::string& reason) const {
        if (!holds) refuse(reason);
    }
    /// An axis from -rank to rank - 1 as one from 0.
    size_t axis(int64_t value, size_t rank) const;
    /// Room for a tensor, all `value`, once its size is known to be allowed.
    template <typename Value>
    std::vector<Value> room(const Dims& dims, Value value = Value()) {
        return std::vector<Value>(take(dims), value);
    }
    /// To be called before work that is not in proportion to what `room` hands out.
    void spend(int64_t steps);

    /// The first output.
    void give(Dims dims, std::vector<double> values) {
        outputs[0] = Tensor::of_doubles(std::move(dims), std::move(values));
    }
    void give(Tensor tensor) { outputs[0] = std::move(tensor); }

    /// A tensor of the same kind as `from` (Double, or its integral type) that `fill` writes:
    /// `fill(values of from, values of the result)`.
    template <typename Fill>
    Tensor moved(const Tensor& from, Dims dims, Fill fill) {
        if (is_integral(from.type)) {
            auto to = room<int64_t>(dims);
            fill(std::get<std::vector<int64_t>>(from.values), to);
            return Tensor::of_integers(std::move(dims), std::move(to), from.type);
        }
        auto to = room<double>(dims);
        fill(Numbers(from).list(), to);
        return Tensor::of_doubles(std::move(dims), std::move(to));
    }

    /// The same for values that only take other places: the result has the type of `from`.
    template <typename Fill>
    Tensor placed(const Tensor& from, Dims dims, Fill fill) {
        return std::visit(
            [&](const auto& list) {
                auto to = room<typename std::decay_t<decltype(list)>::value_type>(dims);
                fill(list, to);
                return Tensor{from.type, std::move(dims), std::move(to)};
            },
            from.values);
    }

private:
    size_t take(const Dims& dims);

    std::vector<const Tensor*> inputs;
    EvaluationLimits& left;
};

/// The product, checked: refused above 2^62 or for negative factors.
int64_t product(const Call& call, const Dims& factors);

/// Distances between neighbours along each axis of a dense tensor.
Dims strides_of(const Dims& dims);

/// Visits the elements of `dims` in row-major order with their offsets under several sets of
/// strides: `visit(offsets)`, an array of one offset for each set.
template <size_t count, typename Visit>
void walk(const Dims& dims, const std::array<Dims, count>& strides, Visit visit) {
    for (const int64_t size : dims)
        if (size == 0) return;
    const size_t rank = dims.size();
    std::array<int64_t, count> offsets = {};
    Dims index(rank, 0);
    for (;;) {
        visit(offsets);
        size_t axis = rank;
        for (;;) {
            if (axis == 0) return;
            --axis;
            for (size_t i = 0; i < count; ++i) offsets[i] += strides[i][axis];
            if (++index[axis] < dims[axis]) break;
            for (size_t i = 0; i < count; ++i) offsets[i] -= strides[i][axis] * dims[axis];
            index[axis] = 0;
        }
    }
}

/// The shape that both broadcast to.
Dims broadcast(const Call& call, const Dims& a, const Dims& b);
/// Strides under which a tensor of `from` is read as one of `to`; 0 along repeated axes.
Dims broadcast_strides(const Dims& from, const Dims& to);

/// A tensor's shape cut in three around an axis: what is outside, the axis, what is inside.
struct Cut {
    int64_t outer = 1;
    int64_t size = 1;
    int64_t inner = 1;
};
Cut cut(const Dims& dims, size_t axis);

}  // namespace modelkit::onnx::evaluation
