#include "modelkit/onnx/evaluator_call.h"

#include <algorithm>

namespace modelkit::onnx::evaluation {

const Tensor& Call::input(size_t index) const {
    if (!has(index)) refuse("input " + std::to_string(index) + " is missing");
    return *inputs[index];
}

const Tensor& Call::real(size_t index) const {
    const Tensor& tensor = input(index);
    if (is_integral(tensor.type)) {
        refuse("input " + std::to_string(index) + " is of " + name_of(tensor.type) +
               ", expected floating-point numbers");
    }
    return tensor;
}

std::vector<int64_t> Call::list(size_t index) const {
    const Tensor& tensor = input(index);
    const std::string name = "input " + std::to_string(index);
    require(is_integral(tensor.type) && tensor.type != ElementType::Bool,
            name + " is of " + name_of(tensor.type) + ", expected integers");
    require(tensor.dims.size() <= 1 && tensor.size() <= 64,
            name + " has shape " + text_of(tensor.dims) + ", expected a short list");
    return std::get<std::vector<int64_t>>(tensor.values);
}

double Call::scalar(size_t index) const {
    const Tensor& tensor = input(index);
    require(tensor.size() == 1, "input " + std::to_string(index) + " has shape " +
                                    text_of(tensor.dims) + ", expected one element");
    return tensor.number(0);
}

size_t Call::axis(int64_t value, size_t rank) const {
    const auto count = static_cast<int64_t>(rank);
    if (value < -count || value >= count) {
        refuse("axis " + std::to_string(value) + " of a tensor with " + std::to_string(rank) +
               " dimensions");
    }
    return static_cast<size_t>(value < 0 ? value + count : value);
}

void Call::spend(int64_t steps) {
    if (steps > left.steps) {
        left.exceeded = "the evaluation would take too long: more than " +
                        std::to_string(left.steps) + " further steps";
        refuse(left.exceeded);
    }
    left.steps -= steps;
}

size_t Call::take(const Dims& dims) {
    const int64_t count = element_count(dims);
    if (count < 0 || count > left.elements) {
        left.exceeded = "a tensor of shape " + text_of(dims) +
                        " is too large: " + std::to_string(left.elements) +
                        " elements are left for all";
        refuse(left.exceeded);
    }
    spend(count);
    left.elements -= count;
    return static_cast<size_t>(count);
}

int64_t product(const Call& call, const Dims& factors) {
    constexpr int64_t MOST = int64_t(1) << 62;
    int64_t result = 1;
    for (const int64_t factor : factors) {
        if (factor == 0) return 0;
        if (factor < 0 || result > MOST / factor) call.refuse("sizes are too large to multiply");
        result *= factor;
    }
    return result;
}

Dims strides_of(const Dims& dims) {
    Dims strides(dims.size());
    int64_t stride = 1;
    for (size_t i = dims.size(); i-- > 0;) {
        strides[i] = stride;
        stride *= dims[i];
    }
    return strides;
}

Dims broadcast(const Call& call, const Dims& a, const Dims& b) {
    Dims result(std::max(a.size(), b.size()), 1);
    for (size_t i = 0; i < result.size(); ++i) {
        const int64_t from_a = i < a.size() ? a[a.size() - 1 - i] : 1;
        const int64_t from_b = i < b.size() ? b[b.size() - 1 - i] : 1;
        if (from_a != from_b && from_a != 1 && from_b != 1) {
            call.refuse("shapes " + text_of(a) + " and " + text_of(b) + " do not broadcast");
        }
        result[result.size() - 1 - i] = from_a == 1 ? from_b : from_a;
    }
    return result;
}

Dims broadcast_strides(const Dims& from, const Dims& to) {
    const Dims dense = strides_of(from);
    Dims strides(to.size(), 0);
    const size_t missing = to.size() - from.size();
    for (size_t i = 0; i < from.size(); ++i) {
        if (from[i] != 1) strides[missing + i] = dense[i];
    }
    return strides;
}

Cut cut(const Dims& dims, size_t axis) {
    Cut result;
    for (size_t i = 0; i < dims.size(); ++i) {
        int64_t& part = i < axis ? result.outer : i == axis ? result.size : result.inner;
        part *= dims[i];
    }
    return result;
}

}  // namespace modelkit::onnx::evaluation
