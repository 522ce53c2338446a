#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <utility>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx::evaluation {

namespace {

void require_numbers_alike(const Call& call, const Tensor& a, const Tensor& b) {
    // Floating-point types may differ: what is computed is Double, what the file gives is not.
    const bool alike = is_integral(a.type) ? a.type == b.type : !is_integral(b.type);
    if (!alike) {
        call.refuse(std::string("the inputs are of ") + name_of(a.type) + " and " +
                    name_of(b.type));
    }
}

// Element by element, broadcast. `Result` is the element type of `to`.
template <typename Result, typename From, typename Function>
std::vector<Result> combined(Call& call, const Dims& dims, const Tensor& a, const From& from_a,
                             const Tensor& b, const From& from_b, Function function) {
    std::vector<Result> to = call.room<Result>(dims);
    size_t next = 0;
    walk<2>(dims, {broadcast_strides(a.dims, dims), broadcast_strides(b.dims, dims)},
            [&](const std::array<int64_t, 2>& at) {
                to[next++] = static_cast<Result>(function(from_a[static_cast<size_t>(at[0])],
                                                          from_b[static_cast<size_t>(at[1])]));
            });
    return to;
}

using Integers = std::vector<int64_t>;

template <typename Reals, typename Whole>
Tensor arithmetic(Call& call, const Tensor& a, const Tensor& b, Reals reals, Whole whole) {
    require_numbers_alike(call, a, b);
    call.require(a.type != ElementType::Bool, "the inputs are of bool, expected numbers");
    const Dims dims = broadcast(call, a.dims, b.dims);
    if (is_integral(a.type)) {
        return Tensor::of_integers(dims,
                                   combined<int64_t>(call, dims, a, std::get<Integers>(a.values), b,
                                                     std::get<Integers>(b.values), whole),
                                   a.type);
    }
    // Weights of a model, without a copy of each.
    const auto* floats_a = std::get_if<std::vector<float>>(&a.values);
    const auto* floats_b = std::get_if<std::vector<float>>(&b.values);
    if (floats_a != nullptr && floats_b != nullptr) {
        return Tensor::of_doubles(dims,
                                  combined<double>(call, dims, a, *floats_a, b, *floats_b, reals));
    }
    const Numbers from_a(a);
    const Numbers from_b(b);
    return Tensor::of_doubles(
        dims, combined<double>(call, dims, a, from_a.list(), b, from_b.list(), reals));
}

template <typename Function>
Tensor compared(Call& call, Function function) {
    const Tensor& a = call.input(0);
    const Tensor& b = call.input(1);
    require_numbers_alike(call, a, b);
    const Dims dims = broadcast(call, a.dims, b.dims);
    if (is_integral(a.type)) {
        return Tensor::of_integers(dims,
                                   combined<int64_t>(call, dims, a, std::get<Integers>(a.values), b,
                                                     std::get<Integers>(b.values), function),
                                   ElementType::Bool);
    }
    const Numbers from_a(a);
    const Numbers from_b(b);
    return Tensor::of_integers(
        dims, combined<int64_t>(call, dims, a, from_a.list(), b, from_b.list(), function),
        ElementType::Bool);
}

// Integers wrap around, as two's complement does.
template <typename Function>
auto wrapping(Function function) {
    return [function](int64_t a, int64_t b) {
        return static_cast<int64_t>(function(static_cast<uint64_t>(a), static_cast<uint64_t>(b)));
    };
}

// NaN wins, whichever side it is on.
template <typename Number>
Number smaller(Number a, Number b) {
    return a < b || a != a ? a : b;
}

template <typename Number>
Number larger(Number a, Number b) {
    return a > b || a != a ? a : b;
}

// Folds any number of inputs, from the first on.
template <typename Reals, typename Whole>
void fold(Call& call, Reals reals, Whole whole) {
    if (call.input_count() == 1) {
        call.give(call.moved(call.input(0), call.input(0).dims,
                             [](const auto& from, auto& to) { to = from; }));
        return;
    }
    Tensor result = arithmetic(call, call.input(0), call.input(1), reals, whole);
    for (size_t i = 2; i < call.input_count(); ++i)
        result = arithmetic(call, result, call.input(i), reals, whole);
    call.give(std::move(result));
}

}  // namespace

void add(Call& call) {
    call.give(arithmetic(call, call.input(0), call.input(1), std::plus<double>(),
                         wrapping(std::plus<uint64_t>())));
}

void sub(Call& call) {
    call.give(arithmetic(call, call.input(0), call.input(1), std::minus<double>(),
                         wrapping(std::minus<uint64_t>())));
}

void mul(Call& call) {
    call.give(arithmetic(call, call.input(0), call.input(1), std::multiplies<double>(),
                         wrapping(std::multiplies<uint64_t>())));
}

// Integers are divided toward zero.
void div(Call& call) {
    call.give(arithmetic(
        call, call.input(0), call.input(1), std::divides<double>(), [&call](int64_t a, int64_t b) {
            call.require(b != 0, "an integer is divided by 0");
            const bool overflows = b == -1 && a == std::numeric_limits<int64_t>::min();
            return overflows ? a : a / b;
        }));
}

void pow(Call& call) {
    call.real(0);
    const Numbers base(call.input(0));
    const Numbers exponent(call.input(1));
    const Dims dims = broadcast(call, call.input(0).dims, call.input(1).dims);
    call.give(dims,
              combined<double>(call, dims, call.input(0), base.list(), call.input(1),
                               exponent.list(), [](double a, double b) { return std::pow(a, b); }));
}

void min(Call& call) {
    fold(call, smaller<double>, smaller<int64_t>);
}

void max(Call& call) {
    fold(call, larger<double>, larger<int64_t>);
}

void sum(Call& call) {
    fold(call, std::plus<double>(), wrapping(std::plus<uint64_t>()));
}

void prelu(Call& call) {
    const Tensor& x = call.real(0);
    const Tensor& slope = call.real(1);
    call.require(
        broadcast(call, x.dims, slope.dims) == x.dims,
        "the slope of shape " + text_of(slope.dims) + " is larger than " + text_of(x.dims));
    const Numbers values(x);
    const Numbers slopes(slope);
    call.give(x.dims, combined<double>(call, x.dims, x, values.list(), slope, slopes.list(),
                                       [](double a, double b) { return a < 0 ? a * b : a; }));
}

void equal(Call& call) {
    call.give(compared(call, [](auto a, auto b) { return a == b; }));
}

void greater(Call& call) {
    call.give(compared(call, [](auto a, auto b) { return a > b; }));
}

void less(Call& call) {
    call.give(compared(call, [](auto a, auto b) { return a < b; }));
}

namespace {

void require_bools(const Call& call) {
    for (size_t i = 0; i < 2; ++i) {
        call.require(call.input(i).type == ElementType::Bool,
                     std::string("input ") + std::to_string(i) + " is of " +
                         name_of(call.input(i).type) + ", expected bool");
    }
}

}  // namespace

void logical_and(Call& call) {
    require_bools(call);
    call.give(compared(call, [](auto a, auto b) { return a != 0 && b != 0; }));
}

void logical_or(Call& call) {
    require_bools(call);
    call.give(compared(call, [](auto a, auto b) { return a != 0 || b != 0; }));
}

void where(Call& call) {
    const Tensor& condition = call.input(0);
    const Tensor& yes = call.input(1);
    const Tensor& no = call.input(2);
    call.require(condition.type == ElementType::Bool,
                 std::string("the condition is of ") + name_of(condition.type) + ", expected bool");
    require_numbers_alike(call, yes, no);
    const Dims dims = broadcast(call, broadcast(call, condition.dims, yes.dims), no.dims);
    const auto& conditions = std::get<Integers>(condition.values);
    const auto choose = [&](const auto& from_yes, const auto& from_no, auto& to) {
        size_t next = 0;
        walk<3>(dims,
                {broadcast_strides(condition.dims, dims), broadcast_strides(yes.dims, dims),
                 broadcast_strides(no.dims, dims)},
                [&](const std::array<int64_t, 3>& at) {
                    to[next++] = conditions[static_cast<size_t>(at[0])] != 0
                                     ? from_yes[static_cast<size_t>(at[1])]
                                     : from_no[static_cast<size_t>(at[2])];
                });
    };
    if (is_integral(yes.type)) {
        Integers to = call.room<int64_t>(dims);
        choose(std::get<Integers>(yes.values), std::get<Integers>(no.values), to);
        call.give(Tensor::of_integers(dims, std::move(to), yes.type));
        return;
    }
    std::vector<double> to = call.room<double>(dims);
    choose(Numbers(yes).list(), Numbers(no).list(), to);
    call.give(dims, std::move(to));
}

}  // namespace modelkit::onnx::evaluation
