// Gemm and MatMul with constant weights.
#include <algorithm>

#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

// A convolution over the whole tensor takes any division of the inputs and any counts; the full
// connection is for rows, and for counts divisible by 4, which it relies on.
void Lowering::dense(const Value& data, int64_t rows, const MatrixWeights& weights,
                     const std::vector<float>& bias, const Dims& dims, const Fused& fused) {
    const auto inner = static_cast<int64_t>(weights.inputs);
    const int outputs = small(static_cast<int64_t>(weights.outputs), "outputs");
    Blob blob = data.blob;
    if (rows == 1) {
        const Extent& size = blob.size;
        const std::optional<size_t> reader = uses.sole_reader(fused.output);
        const bool to_softmax = reader && graph.nodes[*reader].op_type == "Softmax";
        const bool connects = size.h * size.w > 1 && inner % 4 == 0 && outputs % 4 == 0 &&
                              inner <= 65535 && !to_softmax && !emitter.for_gpu();
        if (connects) {
            const auto by_output = [&](size_t row, float* to) {
                weights.of_output(row, 0, 1, weights.inputs, to);
            };
            blob = emitter.full_connection(blob, outputs, by_output, bias);
            if (fused.activation != 0) blob = emitter.activation(blob, fused.activation);
        } else {
            Window window;
            window.kernel_w = window.stride_w = size.w;
            window.kernel_h = window.stride_h = size.h;
            const size_t taps = static_cast<size_t>(size.h) * static_cast<size_t>(size.w);
            const auto channels = static_cast<size_t>(size.c);
            const auto by_output = [&](size_t row, float* to) {
                weights.of_output(row / taps, row % taps, taps, channels, to);
            };
            blob = emitter.conv(blob, outputs, window, by_output, bias, fused.activation);
        }
        give(fused.output, dims, blob);
        return;
    }
    // A row for each channel: every channel gets the same weights.
    blob = rows_of(blob, small(rows, "rows"));
    require(int64_t{blob.size.h} * blob.size.w == inner,
            "rows of " + std::to_string(inner) + " numbers expected, found " + text_of(blob.size));
    require(rows * inner * outputs <= (int64_t{1} << 26),
            "at most 67108864 weights, repeated for each row, expected, found " +
                std::to_string(rows * inner * outputs));
    const auto repeated = [&](size_t tap, float* to) {
        weights.of_input(tap, to);
        for (int64_t i = 1; i < rows; ++i) std::copy_n(to, outputs, to + i * outputs);
    };
    std::vector<float> repeated_bias;
    for (int64_t i = 0; i < rows; ++i) {
        repeated_bias.insert(repeated_bias.end(), bias.begin(), bias.end());
    }
    Window window;
    window.kernel_w = window.stride_w = blob.size.w;
    window.kernel_h = window.stride_h = blob.size.h;
    // The multiplier takes the engine's spare floats; beyond some each row is there once for each
    // output.
    int multiplier = outputs;
    if ((outputs - 1) * rows * inner * outputs > (int64_t{1} << 20)) {
        expect_room_to_pick(blob, rows * outputs);
        std::vector<int> order;
        for (int64_t i = 0; i < rows; ++i) order.insert(order.end(), outputs, static_cast<int>(i));
        blob = pick_channels(blob, order);
        multiplier = 1;
    }
    blob = emitter.depthwise(blob, multiplier, window, repeated, repeated_bias, fused.activation);
    give(fused.output, dims, blob);
}

void Lowering::gemm() {
    const Value& data = value(0);
    const Tensor& weights = required(1, "weights");
    require(data.dims.size() == 2 && weights.dims.size() == 2,
            "matrices expected, found " + text_of(data.dims) + " and " + text_of(weights.dims));
    const bool turned = node().integer("transA", 0) != 0;
    const int64_t rows = data.dims[turned ? 1 : 0];
    const int64_t inner = data.dims[turned ? 0 : 1];
    require(!turned || rows == 1 || inner == 1, "transA on a vector expected, found " +
                                                    text_of(data.dims) +
                                                    ": the engines do not transpose");
    const bool as_rows = node().integer("transB", 0) != 0;
    const int64_t outputs = weights.dims[as_rows ? 0 : 1];
    require(weights.dims[as_rows ? 1 : 0] == inner && outputs >= 1,
            "weights for " + std::to_string(inner) + " inputs expected, found " +
                text_of(weights.dims));
    const double alpha = node().number("alpha", 1.0);
    const double beta = node().number("beta", 1.0);
    require(alpha != 0, "an alpha other than 0 expected, found 0");
    const MatrixWeights matrix = {&weights, static_cast<size_t>(outputs),
                                  static_cast<size_t>(inner), as_rows, alpha};
    show_halves(1, alpha);
    std::vector<float> bias;
    if (node().has_input(2) && beta != 0) {
        const Tensor& terms = required(2, "a bias");
        require(terms.size() == 1 || (terms.size() == static_cast<size_t>(outputs) &&
                                      (terms.dims.back() == outputs)),
                "a bias of " + std::to_string(outputs) + " numbers expected, found " +
                    text_of(terms.dims));
        for (int64_t i = 0; i < outputs; ++i) {
            const double term = terms.number(terms.size() == 1 ? 0 : static_cast<size_t>(i));
            bias.push_back(static_cast<float>(term * beta));
        }
        show_halves(2, beta);
    }
    const Fused fused = fuse(fusable({2, 3, 4, 6, 8}));
    dense(data, rows, matrix, bias, {rows, outputs}, fused);
}

void Lowering::matmul() {
    const Value& data = value(0);
    const Tensor& weights = required(1, "the second factor");
    require(weights.dims.size() == 2 && !data.dims.empty(),
            "a matrix for the second factor expected, found " + text_of(weights.dims));
    const int64_t inner = data.dims.back();
    const int64_t outputs = weights.dims[1];
    require(weights.dims[0] == inner && outputs >= 1, "weights for " + std::to_string(inner) +
                                                          " inputs expected, found " +
                                                          text_of(weights.dims));
    const int64_t rows = element_count(data.dims) / inner;
    Dims dims = data.dims;
    dims.back() = outputs;
    show_halves(1);
    const MatrixWeights matrix = {&weights, static_cast<size_t>(outputs),
                                  static_cast<size_t>(inner), false, 1.0};
    // Exporters write the bias as an Add behind it.
    std::vector<float> bias;
    std::string output = node().outputs[0];
    const std::optional<size_t> reader = uses.sole_reader(output);
    if (reader && graph.nodes[*reader].op_type == "Add") {
        const Node& add = graph.nodes[*reader];
        const size_t side = add.inputs[0] == output ? 1 : 0;
        const auto terms = graph.initializers.find(add.inputs[side]);
        if (terms != graph.initializers.end() && !terms->second.dims.empty() &&
            terms->second.dims.size() <= dims.size() && terms->second.dims.back() == outputs &&
            terms->second.size() == static_cast<size_t>(outputs)) {
            bias = floats_of(terms->second);
            output = add.outputs[0];
            done.insert(*reader);
            const size_t here = at;
            at = *reader;
            show_halves(side);
            at = here;
        }
    }
    const Fused fused = fuse(output, fusable({2, 3, 4, 6, 8}));
    dense(data, rows, matrix, bias, dims, fused);
}

}  // namespace modelkit::onnx
