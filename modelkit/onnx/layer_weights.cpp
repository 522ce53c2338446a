#include "modelkit/onnx/layer_weights.h"

#include <algorithm>

namespace modelkit::onnx {

bool KernelWeights::find_tap(size_t place, size_t& tap) const {
    const size_t y = place / (kernel_w + zeros_x);
    const size_t x = place % (kernel_w + zeros_x);
    if (y < zeros_y || x < zeros_x) return false;
    tap = (y - zeros_y) * kernel_w + (x - zeros_x);
    if (turned) tap = taps() - 1 - tap;
    return true;
}

WeightRows KernelWeights::by_output() const {
    return [*this](size_t row, float* to) {
        const size_t outputs_each = outputs / groups;
        const size_t inputs_each = inputs / groups;
        const size_t output = row / wide_taps();
        const size_t group = output / outputs_each;
        std::fill_n(to, inputs, 0.0f);
        size_t tap = 0;
        if (!find_tap(row % wide_taps(), tap)) return;
        const size_t in_group = output % outputs_each;
        const size_t step = inputs_first ? outputs_each * taps() : taps();
        const size_t first = inputs_first
                                 ? (group * inputs_each * outputs_each + in_group) * taps() + tap
                                 : output * inputs_each * taps() + tap;
        tensor->floats(first, static_cast<ptrdiff_t>(step), inputs_each, to + group * inputs_each);
    };
}

WeightRows KernelWeights::by_tap() const {
    return [*this](size_t row, float* to) {
        size_t tap = 0;
        if (!find_tap(row, tap)) {
            std::fill_n(to, outputs, 0.0f);
            return;
        }
        tensor->floats(tap, static_cast<ptrdiff_t>(taps()), outputs, to);
    };
}

WeightRows KernelWeights::by_channel() const {
    return [*this](size_t row, float* to) {
        for (size_t place = 0; place < wide_taps(); ++place) {
            size_t tap = 0;
            to[place] = 0.0f;
            if (find_tap(place, tap)) tensor->floats(row * taps() + tap, 1, 1, to + place);
        }
    };
}

void MatrixWeights::scale(size_t count, float* to) const {
    if (factor == 1.0) return;
    for (size_t i = 0; i < count; ++i) {
        to[i] = static_cast<float>(static_cast<double>(to[i]) * factor);
    }
}

void MatrixWeights::of_output(size_t output, size_t first, size_t step, size_t count,
                              float* to) const {
    const size_t start = outputs_first ? output * inputs + first : first * outputs + output;
    tensor->floats(start, static_cast<ptrdiff_t>(outputs_first ? step : step * outputs), count, to);
    scale(count, to);
}

void MatrixWeights::of_input(size_t input, float* to) const {
    tensor->floats(outputs_first ? input : input * outputs,
                   static_cast<ptrdiff_t>(outputs_first ? inputs : 1), outputs, to);
    scale(outputs, to);
}

}  // namespace modelkit::onnx
