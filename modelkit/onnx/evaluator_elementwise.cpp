#include <cmath>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx::evaluation {

namespace {

template <typename Function>
void map_reals(Call& call, Function function) {
    const Tensor& x = call.real(0);
    std::vector<double> y = call.room<double>(x.dims);
    const Numbers input(x);
    for (size_t i = 0; i < y.size(); ++i) y[i] = function(input[i]);
    call.give(x.dims, std::move(y));
}

// The same for both kinds of numbers; integers wrap around.
template <typename Function>
void map_numbers(Call& call, Function function) {
    const Tensor& x = call.input(0);
    call.require(x.type != ElementType::Bool, "input 0 is of bool, expected numbers");
    call.give(call.moved(x, x.dims, [&](const auto& from, auto& to) {
        for (size_t i = 0; i < to.size(); ++i) to[i] = function(from[i]);
    }));
}

double negative(double value) {
    return -value;
}

int64_t negative(int64_t value) {
    return static_cast<int64_t>(0 - static_cast<uint64_t>(value));
}

}  // namespace

void abs(Call& call) {
    map_numbers(call, [](auto x) { return x < 0 ? negative(x) : x; });
}

void neg(Call& call) {
    map_numbers(call, [](auto x) { return negative(x); });
}

void relu(Call& call) {
    map_numbers(call, [](auto x) { return x < 0 ? decltype(x)(0) : x; });
}

void floor(Call& call) {
    map_reals(call, [](double x) { return std::floor(x); });
}

void ceil(Call& call) {
    map_reals(call, [](double x) { return std::ceil(x); });
}

void sqrt(Call& call) {
    map_reals(call, [](double x) { return std::sqrt(x); });
}

void exp(Call& call) {
    map_reals(call, [](double x) { return std::exp(x); });
}

void log(Call& call) {
    map_reals(call, [](double x) { return std::log(x); });
}

void reciprocal(Call& call) {
    map_reals(call, [](double x) { return 1 / x; });
}

void sigmoid(Call& call) {
    map_reals(call, [](double x) { return 1 / (1 + std::exp(-x)); });
}

void tanh(Call& call) {
    map_reals(call, [](double x) { return std::tanh(x); });
}

namespace {

double hard_sigmoid_of(double x, double alpha, double beta) {
    const double y = alpha * x + beta;
    return y < 0 ? 0 : y > 1 ? 1 : y;
}

}  // namespace

void hard_sigmoid(Call& call) {
    const double alpha = call.node.number("alpha", 0.2f);
    const double beta = call.node.number("beta", 0.5f);
    map_reals(call, [=](double x) { return hard_sigmoid_of(x, alpha, beta); });
}

void hard_swish(Call& call) {
    map_reals(call, [](double x) { return x * hard_sigmoid_of(x, 1.0 / 6.0, 0.5); });
}

void elu(Call& call) {
    const double alpha = call.node.number("alpha", 1);
    map_reals(call, [=](double x) { return x < 0 ? alpha * std::expm1(x) : x; });
}

// Attributes are stored in float: so is what stands for one left out.
void leaky_relu(Call& call) {
    const double alpha = call.node.number("alpha", 0.01f);
    map_reals(call, [=](double x) { return x < 0 ? alpha * x : x; });
}

namespace {

// Where `least` is above `most`, all becomes `most`.
template <typename Number>
Number limited(Number value, Number least, Number most) {
    if (value < least) value = least;
    return value > most ? most : value;
}

}  // namespace

void clip_by_attributes(Call& call) {
    const double least = call.node.number("min", std::numeric_limits<float>::lowest());
    const double most = call.node.number("max", std::numeric_limits<float>::max());
    map_reals(call, [=](double x) { return limited(x, least, most); });
}

// A bound left out is the largest or smallest number, so that infinities are limited even then.
void clip(Call& call) {
    for (size_t i = 1; i < 3; ++i) {
        if (!call.has(i)) continue;
        call.scalar(i);
        call.require(is_integral(call.input(i).type) == is_integral(call.input(0).type),
                     "input " + std::to_string(i) + " is of " + name_of(call.input(i).type) +
                         ", the values are of " + name_of(call.input(0).type));
    }
    map_numbers(call, [&call](auto x) {
        using Number = decltype(x);
        const auto bound = [&call](size_t index, Number otherwise) {
            if (!call.has(index)) return otherwise;
            if constexpr (std::is_same_v<Number, double>) {
                return call.input(index).number(0);
            } else {
                return call.input(index).integer(0);
            }
        };
        return limited(x, bound(1, std::numeric_limits<Number>::lowest()),
                       bound(2, std::numeric_limits<Number>::max()));
    });
}

namespace {

struct Bounds {
    int64_t least;
    int64_t most;
};

Bounds bounds_of(ElementType type) {
    switch (type) {
        case ElementType::Int8:
            return {INT8_MIN, INT8_MAX};
        case ElementType::Int16:
            return {INT16_MIN, INT16_MAX};
        case ElementType::Int32:
            return {INT32_MIN, INT32_MAX};
        case ElementType::Uint8:
            return {0, UINT8_MAX};
        case ElementType::Uint16:
            return {0, UINT16_MAX};
        case ElementType::Uint32:
            return {0, UINT32_MAX};
        case ElementType::Uint64:
            return {0, INT64_MAX};
        default:
            return {INT64_MIN, INT64_MAX};
    }
}

// The numbers that files use for element types.
ElementType type_of_number(const Call& call, int64_t number) {
    constexpr ElementType TYPES[] = {
        ElementType::Undefined, ElementType::Float,  ElementType::Uint8,   ElementType::Int8,
        ElementType::Uint16,    ElementType::Int16,  ElementType::Int32,   ElementType::Int64,
        ElementType::Undefined, ElementType::Bool,   ElementType::Float16, ElementType::Double,
        ElementType::Uint32,    ElementType::Uint64,
    };
    constexpr int64_t COUNT = sizeof(TYPES) / sizeof(TYPES[0]);
    constexpr int64_t BFLOAT16 = 16;
    if (number == BFLOAT16) return ElementType::BFloat16;
    const ElementType type = number >= 0 && number < COUNT ? TYPES[number] : ElementType::Undefined;
    call.require(type != ElementType::Undefined,
                 "a cast to element type " + std::to_string(number) + " is not supported");
    return type;
}

}  // namespace

void cast(Call& call) {
    const Tensor& x = call.input(0);
    const ElementType type = type_of_number(call, call.node.integer("to", 0));
    if (!is_integral(type)) {
        std::vector<double> to = call.room<double>(x.dims);
        for (size_t i = 0; i < to.size(); ++i) to[i] = x.number(i);
        call.give(x.dims, std::move(to));
        return;
    }
    std::vector<int64_t> to = call.room<int64_t>(x.dims);
    const Bounds bounds = bounds_of(type);
    for (size_t i = 0; i < to.size(); ++i) {
        if (type == ElementType::Bool) {
            to[i] = x.number(i) != 0 ? 1 : 0;
            continue;
        }
        to[i] = x.integer(i);
        // Definitions leave a float's overflow open, and implementations differ.
        const bool fits = to[i] >= bounds.least && to[i] <= bounds.most &&
                          (is_integral(x.type) || std::abs(x.number(i)) < 0x1p63);
        call.require(fits, "element " + std::to_string(i) + " does not fit " + name_of(type));
    }
    call.give(Tensor::of_integers(x.dims, std::move(to), type));
}

void logical_not(Call& call) {
    const Tensor& x = call.input(0);
    call.require(x.type == ElementType::Bool,
                 std::string("input 0 is of ") + name_of(x.type) + ", expected bool");
    call.give(call.moved(x, x.dims, [](const auto& from, auto& to) {
        for (size_t i = 0; i < to.size(); ++i) to[i] = from[i] == 0 ? 1 : 0;
    }));
}

}  // namespace modelkit::onnx::evaluation
