// LSTM of one layer.
#include <algorithm>

#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

// ONNX has the gates as input, output, forget, candidate; the engine as input, forget, candidate,
// output.
constexpr size_t GATES[4] = {0, 2, 3, 1};

// "0.2, 0.5", cut when it is long.
std::string numbers_of(const Attribute& attribute) {
    std::string text;
    const size_t shown = std::min<size_t>(attribute.floats.size(), 4);
    for (size_t i = 0; i < shown; ++i) {
        text += (i == 0 ? "" : ", ") + number_text(attribute.floats[i]);
    }
    return shown < attribute.floats.size() ? text + ", ..." : text;
}

}  // namespace

void Lowering::lstm() {
    const Value& data = value(0);
    const Tensor& weights = required(1, "weights");
    const Tensor& recurrent = required(2, "recurrent weights");
    const int64_t layout = node().integer("layout", 0);
    require(layout == 0, "layout 0 expected, found " + std::to_string(layout));
    require(
        data.dims.size() == 3 && data.dims[1] == 1,
        "a tensor of time steps, a batch of 1 and values expected, found " + text_of(data.dims));
    const int64_t steps = data.dims[0];
    const int inputs = small(data.dims[2], "the input size");
    const int hidden = small(node().integer("hidden_size", 0), "a hidden_size");
    const std::string direction = node().text("direction", "forward");
    require(direction == "forward" || direction == "reverse" || direction == "bidirectional",
            "direction forward, reverse or bidirectional expected, found " + in_quotes(direction));
    const int64_t directions = direction == "bidirectional" ? 2 : 1;
    require(hidden >= 1, "a hidden_size of at least 1 expected, found " + std::to_string(hidden));
    const Dims w_shape = {directions, 4 * hidden, inputs};
    const Dims r_shape = {directions, 4 * hidden, hidden};
    require(weights.dims == w_shape,
            "weights of " + text_of(w_shape) + " expected, found " + text_of(weights.dims));
    require(recurrent.dims == r_shape, "recurrent weights of " + text_of(r_shape) +
                                           " expected, found " + text_of(recurrent.dims));
    const Dims b_shape = {directions, 8 * hidden};
    const Tensor* bias = node().has_input(3) ? &required(3, "a bias") : nullptr;
    if (bias != nullptr && bias->dims != b_shape) {
        refuse("a bias of " + text_of(b_shape) + " expected, found " + text_of(bias->dims));
    }
    if (node().has_input(4)) {
        const Tensor& lengths = required(4, "sequence lengths");
        require(lengths.dims == Dims{1},
                "sequence lengths of [1] expected, found " + text_of(lengths.dims));
        require(lengths.integer(0) == steps, "a sequence length of all " + std::to_string(steps) +
                                                 " time steps expected, found " +
                                                 std::to_string(lengths.integer(0)));
    }
    for (size_t i = 5; i <= 6; ++i) {
        if (!node().has_input(i)) continue;
        const Tensor& state =
            required(i, "an initial state of zeros (the engine keeps the state from run to run),");
        const Dims shape = {directions, 1, hidden};
        require(state.dims == shape, "an initial state of " + text_of(shape) + " expected, found " +
                                         text_of(state.dims));
        for (size_t k = 0; k < state.size(); ++k) {
            if (state.number(k) == 0) continue;
            refuse("an initial state of zeros expected, found " + number_text(state.number(k)) +
                   " at element " + std::to_string(k) +
                   ": the engine keeps the state from run to run");
        }
    }
    if (node().has_input(7)) {
        refuse("no peepholes expected, found them in " + in_quotes(node().inputs[7]));
    }
    for (const char* attribute : {"activation_alpha", "activation_beta", "clip"}) {
        const auto found = node().attributes.find(attribute);
        if (found == node().attributes.end()) continue;
        refuse(std::string("no attribute ") + attribute + " expected, found " +
               numbers_of(found->second));
    }
    const int64_t coupled = node().integer("input_forget", 0);
    require(coupled == 0, "input_forget 0 expected, found " + std::to_string(coupled));
    if (const Attribute* list = node().find("activations", Attribute::Kind::Strings)) {
        for (size_t i = 0; i < list->strings.size(); ++i) {
            const char* expected[] = {"Sigmoid", "Tanh", "Tanh"};
            require(list->strings[i] == expected[i % 3],
                    "the activations Sigmoid, Tanh, Tanh expected, found " +
                        in_quotes(list->strings[i]));
        }
    }
    const bool cell_used = node().has_output(2) && uses.is_used(node().outputs[2]);
    require(!cell_used, "the last cell state is not supported: the engine keeps it to itself");

    Blob blob = rows_of(data.blob, small(steps, "time steps"));

    // A single backward direction is the second of two; the first has weights of zero.
    const bool both = directions == 2 || direction == "reverse";
    const auto h = static_cast<size_t>(hidden);
    const auto n = static_cast<size_t>(inputs);
    const auto rows = [&](size_t d, size_t array, size_t row, float* to) {
        const size_t length = array == 0 ? n : array == 1 ? h : 1;
        std::fill_n(to, length, 0.0f);
        if (directions == 1 && both && d == 0) return;
        const size_t from = directions == 2 ? d : 0;
        const size_t gate = GATES[row / h] * h + row % h;
        if (array == 0) weights.floats((from * 4 * h + gate) * n, 1, n, to);
        if (array == 1) recurrent.floats((from * 4 * h + gate) * h, 1, h, to);
        if (array >= 2 && bias != nullptr) {
            bias->floats((from * 8 + (array - 2) * 4) * h + gate, 1, 1, to);
        }
    };
    show_halves(1);
    show_halves(2);
    if (bias != nullptr) show_halves(3);
    blob = emitter.lstm(blob, inputs, hidden, both, rows);
    note("the engine keeps hidden and cell state from run to run, until reset_lstm_state");
    if (directions == 1 && both) blob = pad_or_crop(blob, 0, -hidden, 0, 0);
    if (node().has_output(0)) give(node().outputs[0], {steps, directions, 1, hidden}, blob);

    const bool last_used = node().has_output(1) && uses.is_used(node().outputs[1]);
    if (!last_used) return;
    const int last = static_cast<int>(steps) - 1;
    Blob state;
    if (directions == 1) {
        state = pick_channels(blob, {direction == "forward" ? last : 0});
    } else if (steps == 1) {
        state = blob;
    } else {
        const Blob ahead = pad_or_crop(pick_channels(blob, {last}), 0, 0, 0, -hidden);
        const Blob back = pad_or_crop(pick_channels(blob, {0}), 0, -hidden, 0, 0);
        state = emitter.concat({ahead, back}, 0, {1, 1, 2 * hidden});
    }
    give(node().outputs[1], {directions, 1, hidden}, state);
}

}  // namespace modelkit::onnx
