#include "cpu/operator/lstm_fallback.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(LSTM_Fallback)

namespace {

enum Gate { input_gate = 0, forget_gate, candidate_gate, output_gate, gate_count };

std::unique_ptr<float[]> zeros(int64_t count) {
    return std::unique_ptr<float[]>(new (std::nothrow) float[static_cast<size_t>(count)]());
}

// An array of a direction, and how many of its floats there are. Behind them there are zeros.
struct Floats {
    const float* data;
    int64_t count;

    float at(int64_t i) const { return i < count ? data[i] : 0.0f; }
    bool covers(int64_t end) const { return end <= count; }
};

Floats floats_of(const Mat& mat) {
    return {mat.ptr<float>(), mat.empty() ? 0 : mat.shape.total()};
}

// Adds the products of x and row `unit` of each gate onto the four sums, each in ascending order.
void add_products(Floats weights, int64_t hidden_size, int64_t unit, Floats x, int64_t count,
                  float* sums) {
    const int64_t gate = hidden_size * count;
    const int64_t row = unit * count;
    if (weights.covers(3 * gate + row + count) && x.covers(count)) {
        const float* w = weights.data + row;
        for (int64_t k = 0; k < count; ++k) {
            for (int g = 0; g < gate_count; ++g)
                sums[g] += w[g * gate + k] * x.data[k];
        }
        return;
    }
    for (int64_t k = 0; k < count; ++k) {
        for (int g = 0; g < gate_count; ++g)
            sums[g] += weights.at(g * gate + row + k) * x.at(k);
    }
}

// The exponential is rounded to float, the rest is done in double.
float logistic(float v) {
    const float e = static_cast<float>(std::exp(static_cast<double>(-v)));
    return static_cast<float>(1.0 / (e + 1.0));
}

float rounded_tanh(float v) {
    return static_cast<float>(std::tanh(static_cast<double>(v)));
}

// `count` floats of type and index; false when there is no memory. A count of 0 is no failure.
bool take(const ModelBin& mb, int64_t count, int type, int index, Mat& array) {
    if (count > INT_MAX) return false;
    array = mb.load(static_cast<int>(count), type, index);
    return count == 0 || !array.empty();
}

}  // namespace

bool LSTM_Fallback::load_direction(const ModelBin& mb, int d) {
    const int64_t units = int64_t{hidden_size} * size_factor;
    const int64_t biases = int64_t{gate_count} * hidden_size;
    Direction& target = direction[d];
    target.bias_input = zeros(biases);
    target.bias_recurrent = zeros(biases);
    if (target.bias_input == nullptr || target.bias_recurrent == nullptr) return false;
    // A single direction has the reverse one's biases too, and no weights.
    if (d >= directions()) return true;

    if (!take(mb, gate_count * input_size * units, 0, 2 * d, target.w_input) ||
        !take(mb, gate_count * hidden_size * units, 0, 2 * d + 1, target.w_recurrent)) {
        return false;
    }
    if (bias_term == 0) return true;
    std::unique_ptr<float[]>* arrays[] = {&target.bias_input, &target.bias_recurrent};
    for (int i = 0; i < 2; ++i) {
        Mat bias;
        if (!take(mb, gate_count * units, 1, 2 * d + i, bias)) return false;
        const int64_t count = std::min(biases, bias.shape.total());
        if (count > 0) {
            std::memcpy(arrays[i]->get(), bias.data, static_cast<size_t>(count) * sizeof(float));
        }
    }
    return true;
}

int LSTM_Fallback::load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig&) {
    loaded = false;
    input_size = static_cast<uint16_t>(pd.get(0, 0));
    hidden_size = static_cast<uint16_t>(pd.get(1, 0));
    size_factor = static_cast<uint16_t>(pd.get(2, 0));
    bias_term = static_cast<uint16_t>(pd.get(3, 0));
    bidirectional = static_cast<uint16_t>(pd.get(4, 0));
    if (!load_direction(mb, 0) || !load_direction(mb, 1)) return -100;

    // A second load keeps the state while it fits.
    const int64_t size = int64_t{hidden_size} * directions();
    if (hidden_state == nullptr || cell_state == nullptr || state_size != size) {
        hidden_state = zeros(size);
        cell_state = zeros(size);
        state_size = size;
        if (hidden_state == nullptr || cell_state == nullptr) return -100;
    }
    loaded = true;
    return 0;
}

void LSTM_Fallback::reset_lstm_state() {
    if (hidden_state != nullptr) std::fill_n(hidden_state.get(), state_size, 0.0f);
    if (cell_state != nullptr) std::fill_n(cell_state.get(), state_size, 0.0f);
}

bool LSTM_Fallback::check_forward(const TensorShape& shape) {
    return shape.h == 1;
}

// One time step of one direction. `x` has `x_count` floats before the end of the bottom.
void LSTM_Fallback::step(const Direction& weights, const float* x, int64_t x_count,
                         const float* hidden_prev, const float* cell_prev, float* hidden,
                         float* cell) const {
    const Floats w_input = floats_of(weights.w_input);
    const Floats w_recurrent = floats_of(weights.w_recurrent);
    const Floats previous = {hidden_prev, hidden_size};
    for (int64_t j = 0; j < hidden_size; ++j) {
        const auto bias_at = [&](int g) { return g * int64_t{hidden_size} + j; };
        float a[gate_count] = {0.0f, 0.0f, 0.0f, 0.0f};
        add_products(w_input, hidden_size, j, {x, x_count}, input_size, a);
        for (int g = 0; g < gate_count; ++g)
            a[g] = weights.bias_input[bias_at(g)] + a[g];
        add_products(w_recurrent, hidden_size, j, previous, hidden_size, a);
        for (int g = 0; g < gate_count; ++g)
            a[g] = weights.bias_recurrent[bias_at(g)] + a[g];

        const float output = logistic(a[output_gate]);
        const float input = logistic(a[input_gate]);
        const float candidate = rounded_tanh(a[candidate_gate]);
        const float forget = logistic(a[forget_gate]);
        cell[j] = input * candidate + forget * cell_prev[j];
        hidden[j] = rounded_tanh(cell[j]) * output;
    }
}

int LSTM_Fallback::forward(const Mat& bottom, Mat& top, const Option& opt) {
    if (!loaded) return -100;
    const int64_t steps = bottom.shape.c;
    const int64_t width = state_size;
    top.create(TensorShape(bottom.shape.layout, bottom.shape.c, 1, static_cast<int>(width),
                           bottom.shape.elem_size),
               opt.blob_allocator);
    TN_FORWARD_PRECONDITIONS(check_forward(top.shape));
    // Without a time step or without a unit there is nothing to do, which is no failure.
    if (top.shape.total() <= 0) return 0;
    // The check lets elements of any size pass; the cell works on floats.
    if (top.empty() || top.shape.elem_size != 4) return -100;

    const std::unique_ptr<float[]> hidden_prev = zeros(hidden_size);
    const std::unique_ptr<float[]> cell_prev = zeros(hidden_size);
    if (hidden_prev == nullptr || cell_prev == nullptr) return -100;
    const Floats sequence = floats_of(bottom);
    const size_t state_bytes = hidden_size * sizeof(float);
    for (int64_t i = 0; i < steps; ++i) {
        for (int d = 0; d < directions(); ++d) {
            // The reverse direction runs from the last step back.
            const int64_t t = d == 0 ? i : steps - 1 - i;
            float* hidden = hidden_state.get() + d * hidden_size;
            float* cell = cell_state.get() + d * hidden_size;
            std::memcpy(hidden_prev.get(), hidden, state_bytes);
            std::memcpy(cell_prev.get(), cell, state_bytes);
            const int64_t place = std::min(t * input_size, sequence.count);
            step(direction[d], sequence.data != nullptr ? sequence.data + place : nullptr,
                 sequence.count - place, hidden_prev.get(), cell_prev.get(), hidden, cell);
            std::memcpy(top.ptr<float>() + t * width + d * hidden_size, hidden, state_bytes);
        }
    }
    return 0;
}

}  // namespace TarnoCPU
