#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx::evaluation {

namespace {

using Function = double (*)(double);

double sigmoid_of(double x) {
    return 1 / (1 + std::exp(-x));
}

double tanh_of(double x) {
    return std::tanh(x);
}

double relu_of(double x) {
    return x < 0 ? 0 : x;
}

// The names are compared without regard to case, as the definition wants.
Function function_of(const Call& call, std::string name) {
    std::string small = name;
    for (char& letter : small) {
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    }
    if (small == "sigmoid") return sigmoid_of;
    if (small == "tanh") return tanh_of;
    if (small == "relu") return relu_of;
    call.refuse("the activation " + in_quotes(name) + " is not supported");
}

struct Activations {
    Function gate;
    Function candidate;
    Function output;
};

struct Sizes {
    int64_t steps = 0;
    int64_t batch = 0;
    int64_t inputs = 0;
    int64_t units = 0;
    int64_t directions = 0;
};

/// One direction's weights; gates in the order input, output, forget, cell.
struct Cell {
    const double* w = nullptr;  ///< [4 * units][inputs]
    const double* r = nullptr;  ///< [4 * units][units]
    const double* b = nullptr;  ///< [8 * units], of the inputs and of the state; may be null
    const double* p = nullptr;  ///< [3 * units], input, output, forget; may be null
    Activations functions = {};
    double limit = std::numeric_limits<double>::infinity();
    bool coupled = false;
    int64_t inputs = 0;
    int64_t units = 0;

    double sum(int64_t gate, int64_t unit, const double* x, const double* h) const {
        const int64_t row = gate * units + unit;
        double total = b != nullptr ? b[row] + b[4 * units + row] : 0;
        for (int64_t i = 0; i < inputs; ++i) total += w[row * inputs + i] * x[i];
        for (int64_t i = 0; i < units; ++i) total += r[row * units + i] * h[i];
        return total;
    }
    double peephole(int64_t gate, int64_t unit, double c) const {
        return p != nullptr ? p[gate * units + unit] * c : 0;
    }
    double clip(double value) const { return std::clamp(value, -limit, limit); }

    /// From the state `h`, `c` to the next, in place. `next` has room for one state.
    void step(const double* x, double* h, double* c, std::vector<double>& next) const {
        enum { INPUT, OUTPUT, FORGET, CELL };
        constexpr int64_t FORGET_PEEPHOLE = 2;
        for (int64_t u = 0; u < units; ++u) {
            const double i = functions.gate(clip(sum(INPUT, u, x, h) + peephole(INPUT, u, c[u])));
            const double f = coupled ? 1 - i
                                     : functions.gate(clip(sum(FORGET, u, x, h) +
                                                           peephole(FORGET_PEEPHOLE, u, c[u])));
            const double candidate = functions.candidate(clip(sum(CELL, u, x, h)));
            const double state = f * c[u] + i * candidate;
            const double o =
                functions.gate(clip(sum(OUTPUT, u, x, h) + peephole(OUTPUT, u, state)));
            c[u] = state;
            next[static_cast<size_t>(u)] = o * functions.output(clip(state));
        }
        std::copy(next.begin(), next.end(), h);
    }
};

std::vector<Activations> activations_of(const Call& call, int64_t directions) {
    for (const char* name : {"activation_alpha", "activation_beta"}) {
        const Attribute* list = call.node.find(name, Attribute::Kind::Floats);
        call.require(list == nullptr || list->floats.empty(),
                     "attribute \"" + std::string(name) + "\" is not supported");
    }
    std::vector<std::string> names;
    if (const Attribute* found = call.node.find("activations", Attribute::Kind::Strings)) {
        names = found->strings;
        call.require(names.size() == static_cast<size_t>(3 * directions),
                     "attribute \"activations\" has " + std::to_string(names.size()) +
                         " entries, expected " + std::to_string(3 * directions));
    } else {
        for (int64_t d = 0; d < directions; ++d)
            names.insert(names.end(), {"Sigmoid", "Tanh", "Tanh"});
    }
    std::vector<Activations> result;
    for (size_t i = 0; i + 2 < names.size(); i += 3) {
        result.push_back({function_of(call, names[i]), function_of(call, names[i + 1]),
                          function_of(call, names[i + 2])});
    }
    return result;
}

// An optional input of the given shape as numbers; empty when it is left out.
std::vector<double> optional(const Call& call, size_t index, const Dims& dims) {
    if (!call.has(index)) return {};
    const Tensor& tensor = call.real(index);
    call.require(tensor.dims == dims, "input " + std::to_string(index) + " has shape " +
                                          text_of(tensor.dims) + ", expected " + text_of(dims));
    return tensor.numbers();
}

Sizes sizes_of(const Call& call, bool batch_first) {
    const Tensor& x = call.real(0);
    const Tensor& w = call.real(1);
    const Tensor& r = call.real(2);
    call.require(x.dims.size() == 3,
                 "the input has shape " + text_of(x.dims) + ", expected three dimensions");
    const std::string direction = call.node.text("direction", "forward");
    call.require(direction == "forward" || direction == "reverse" || direction == "bidirectional",
                 "attribute \"direction\" is " + in_quotes(direction));
    Sizes sizes;
    sizes.steps = x.dims[batch_first ? 1 : 0];
    sizes.batch = x.dims[batch_first ? 0 : 1];
    sizes.inputs = x.dims[2];
    sizes.directions = direction == "bidirectional" ? 2 : 1;
    sizes.units = r.dims.size() == 3 ? r.dims[2] : 0;
    call.require(sizes.units >= 1 && sizes.units <= 65535 && sizes.steps >= 1 && sizes.batch >= 1 &&
                     sizes.inputs >= 1,
                 "input " + text_of(x.dims) + " and recurrence weights " + text_of(r.dims) +
                     " are not possible");
    call.require(call.node.integer("hidden_size", sizes.units) == sizes.units,
                 "attribute \"hidden_size\" is " +
                     std::to_string(call.node.integer("hidden_size", 0)) + ", the weights have " +
                     std::to_string(sizes.units));
    call.require(w.dims == Dims{sizes.directions, 4 * sizes.units, sizes.inputs},
                 "the weights have shape " + text_of(w.dims) + ", expected " +
                     text_of({sizes.directions, 4 * sizes.units, sizes.inputs}));
    call.require(r.dims == Dims{sizes.directions, 4 * sizes.units, sizes.units},
                 "the recurrence weights have shape " + text_of(r.dims) + ", expected " +
                     text_of({sizes.directions, 4 * sizes.units, sizes.units}));
    return sizes;
}

// How many steps each sequence of the batch has.
std::vector<int64_t> lengths_of(const Call& call, const Sizes& sizes) {
    const auto count = static_cast<size_t>(sizes.batch);
    if (!call.has(4)) return std::vector<int64_t>(count, sizes.steps);
    const Tensor& given = call.input(4);
    call.require(is_integral(given.type) && given.dims == Dims{sizes.batch},
                 "the sequence lengths have shape " + text_of(given.dims));
    std::vector<int64_t> lengths = given.integers();
    for (const int64_t length : lengths) {
        call.require(length >= 0 && length <= sizes.steps,
                     "a sequence has " + std::to_string(length) + " of " +
                         std::to_string(sizes.steps) + " steps");
    }
    return lengths;
}

// Where a state of (direction, sequence) starts in Y_h, Y_c and their initial values.
int64_t state_place(const Sizes& sizes, bool batch_first, int64_t d, int64_t n) {
    return (batch_first ? n * sizes.directions + d : d * sizes.batch + n) * sizes.units;
}

}  // namespace

// With `layout` 0: X [steps][batch][inputs], Y [steps][directions][batch][units], states
// [directions][batch][units]; with 1 the batch comes first in all.
void lstm(Call& call) {
    const bool batch_first = call.node.integer("layout", 0) != 0;
    const Sizes sizes = sizes_of(call, batch_first);
    const int64_t units = sizes.units;
    const int64_t directions = sizes.directions;
    const Dims state_dims =
        batch_first ? Dims{sizes.batch, directions, units} : Dims{directions, sizes.batch, units};
    const Dims y_dims = batch_first ? Dims{sizes.batch, sizes.steps, directions, units}
                                    : Dims{sizes.steps, directions, sizes.batch, units};
    const Numbers x(call.input(0));
    const Numbers w(call.input(1));
    const Numbers r(call.input(2));
    const std::vector<double> b = optional(call, 3, {directions, 8 * units});
    const std::vector<int64_t> lengths = lengths_of(call, sizes);
    std::vector<double> h = optional(call, 5, state_dims);
    std::vector<double> c = optional(call, 6, state_dims);
    const std::vector<double> p = optional(call, 7, {directions, 3 * units});
    if (h.empty()) h = call.room<double>(state_dims);
    if (c.empty()) c = call.room<double>(state_dims);
    std::vector<double> y = call.room<double>(y_dims);
    call.spend(product(call, {static_cast<int64_t>(y.size()), 4, sizes.inputs + units}));

    const std::vector<Activations> activations = activations_of(call, directions);
    std::vector<double> next = call.room<double>({units});
    for (int64_t d = 0; d < directions; ++d) {
        Cell cell;
        cell.w = w.data() + d * 4 * units * sizes.inputs;
        cell.r = r.data() + d * 4 * units * units;
        if (!b.empty()) cell.b = b.data() + d * 8 * units;
        if (!p.empty()) cell.p = p.data() + d * 3 * units;
        cell.functions = activations[static_cast<size_t>(d)];
        if (call.node.find("clip", Attribute::Kind::Float) != nullptr) {
            cell.limit = call.node.number("clip", 0);
            call.require(cell.limit > 0, "attribute \"clip\" is not above 0");
        }
        cell.coupled = call.node.integer("input_forget", 0) != 0;
        cell.inputs = sizes.inputs;
        cell.units = units;
        const bool backward = d == 1 || call.node.text("direction", "forward") == "reverse";
        for (int64_t n = 0; n < sizes.batch; ++n) {
            const int64_t length = lengths[static_cast<size_t>(n)];
            const int64_t state = state_place(sizes, batch_first, d, n);
            for (int64_t s = 0; s < length; ++s) {
                const int64_t t = backward ? length - 1 - s : s;
                const int64_t frame = batch_first ? n * sizes.steps + t : t * sizes.batch + n;
                cell.step(x.data() + frame * sizes.inputs, h.data() + state, c.data() + state,
                          next);
                const int64_t place = batch_first ? (n * sizes.steps + t) * directions + d
                                                  : (t * directions + d) * sizes.batch + n;
                std::copy(next.begin(), next.end(), y.begin() + place * units);
            }
        }
    }
    const auto give = [&call](size_t index, const Dims& dims, std::vector<double>& values) {
        if (index < call.outputs.size())
            call.outputs[index] = Tensor::of_doubles(dims, std::move(values));
    };
    give(0, y_dims, y);
    give(1, state_dims, h);
    give(2, state_dims, c);
}

}  // namespace modelkit::onnx::evaluation
