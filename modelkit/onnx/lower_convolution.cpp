// Conv and ConvTranspose.
//
// The engine's convolution gives size / stride places, whatever the kernel and the padding: ONNX's
// sizes come from padding the input before it, and from leaving places out behind it.
#include <algorithm>

#include "modelkit/onnx/layer_weights.h"
#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

// What goes around a convolution along one axis so that it has ONNX's places.
struct AxisPlan {
    int before = 0;  ///< pixels of zeros ahead of the input, negative to leave out
    int behind = 0;
    int pad = 0;         ///< of the engine's layer
    int skip_first = 0;  ///< places to leave out
    int skip_last = 0;
};

AxisPlan plan_keeping(const AxisWindow& axis, int engine_pad, int engine_places) {
    AxisPlan plan;
    plan.pad = engine_pad;
    plan.skip_last = engine_places - static_cast<int>(axis.places());
    return plan;
}

// An operator with size / stride places from -pad on. None of its windows may leave the border.
AxisPlan plan_dividing(AxisWindow axis) {
    AxisPlan plan;
    plan.before = std::min(axis.begin, 0);
    plan.behind = std::min(axis.end, 0);
    axis.in += plan.before + plan.behind;
    axis.begin -= plan.before;
    axis.end -= plan.behind;
    const int64_t places = axis.places();
    for (int first = 0;; ++first) {
        // Places ahead of the wanted ones make room for a padding that is larger by whole strides.
        plan.pad = axis.begin + first * axis.stride;
        plan.skip_first = first;
        const int64_t needed = std::max<int64_t>(0, (first + places) * axis.stride - axis.in);
        for (int64_t more = needed; more < needed + axis.stride; ++more) {
            const int64_t in = axis.in + more;
            const int64_t made = in / axis.stride;
            if (made != first + places && more > needed) break;
            if ((made - 1) * axis.stride + axis.extent() > in + 2 * plan.pad) continue;
            plan.behind += small(more, "padding");
            plan.skip_last = small(made - first - places, "places");
            return plan;
        }
    }
}

bool same(const AxisWindow& axis, int kernel, int stride) {
    return axis.kernel == kernel && axis.stride == stride && axis.dilation == 1;
}

// As the engine's default rule chooses the operator: three by three keeps the size with a padding
// of 1 and takes the margin off with none; one by one knows no padding.
void plan_convolution(const Window2D& window, AxisPlan& y, AxisPlan& x) {
    const auto both = [&](int kernel, int stride) {
        return same(window.y, kernel, stride) && same(window.x, kernel, stride);
    };
    const auto with_padding_before = [](const AxisWindow& axis, AxisPlan& plan) {
        plan.before = axis.begin;
        plan.behind = axis.end;
    };
    if (both(3, 1)) {
        const auto plan = [&](const AxisWindow& axis, AxisPlan& result) {
            if (axis.begin == 1 && axis.end == 1) {
                result = plan_keeping(axis, 1, axis.in);
            } else {
                with_padding_before(axis, result);
            }
        };
        plan(window.y, y);
        plan(window.x, x);
        return;
    }
    if (both(1, 1)) {
        with_padding_before(window.y, y);
        with_padding_before(window.x, x);
        return;
    }
    if (both(1, 2)) {
        const auto plan = [&](AxisWindow axis, AxisPlan& result) {
            AxisWindow padded = axis;
            padded.in += axis.begin + axis.end;
            padded.begin = padded.end = 0;
            result = plan_dividing(padded);
            result.before += axis.begin;
            result.behind += axis.end;
        };
        plan(window.y, y);
        plan(window.x, x);
        return;
    }
    y = plan_dividing(window.y);
    x = plan_dividing(window.x);
}

Window engine_window(const Window2D& window, int pad_y, int pad_x) {
    Window result;
    result.kernel_w = window.x.kernel;
    result.kernel_h = window.y.kernel;
    result.stride_w = window.x.stride;
    result.stride_h = window.y.stride;
    result.dilation_w = window.x.dilation;
    result.dilation_h = window.y.dilation;
    result.pad_w = pad_x;
    result.pad_h = pad_y;
    return result;
}

void require_places(const Window2D& window) {
    for (const AxisWindow* axis : {&window.y, &window.x}) {
        require(axis->in + int64_t{axis->begin} + axis->end >= axis->extent(),
                "a kernel of at most the padded size expected, found an extent of " +
                    std::to_string(axis->extent()) + " for " + std::to_string(axis->in) +
                    " pixels and padding " + std::to_string(axis->begin) + " and " +
                    std::to_string(axis->end));
    }
}

KernelWeights kernel_weights(const Tensor& tensor, const Window2D& window, int groups, int outputs,
                             int inputs) {
    KernelWeights weights;
    weights.tensor = &tensor;
    weights.groups = static_cast<size_t>(groups);
    weights.outputs = static_cast<size_t>(outputs);
    weights.inputs = static_cast<size_t>(inputs);
    weights.kernel_h = static_cast<size_t>(window.y.kernel);
    weights.kernel_w = static_cast<size_t>(window.x.kernel);
    const int64_t taps = int64_t{window.y.kernel} * window.x.kernel;
    const bool spread = groups > 1 && groups != inputs;
    require(!spread || int64_t{outputs} * inputs <= (int64_t{1} << 27) / taps,
            "at most 134217728 weights once the groups are spread out expected, found " +
                std::to_string(outputs) + " outputs of " + std::to_string(inputs) +
                " inputs with a kernel of " + std::to_string(taps));
    return weights;
}

}  // namespace

Window2D Lowering::window_of(const Dims& dims, const Dims& kernel, bool transposed) {
    const size_t spatial = dims.size() - 2;
    require(dims.size() == 3 || dims.size() == 4,
            "one or two spatial dimensions expected, found " + text_of(dims));
    require(kernel.size() == spatial, "a kernel of " + std::to_string(spatial) +
                                          " dimensions expected, found " + text_of(kernel));
    const Dims ones(spatial, 1);
    const Dims strides = node().integers("strides", ones);
    const Dims dilations = node().integers("dilations", ones);
    const Dims pads = node().integers("pads", Dims(2 * spatial, 0));
    require(strides.size() == spatial && dilations.size() == spatial && pads.size() == 2 * spatial,
            "strides, dilations and pads for " + std::to_string(spatial) +
                " dimensions expected, found " + text_of(strides) + ", " + text_of(dilations) +
                " and " + text_of(pads));
    const std::string automatic = node().text("auto_pad", "NOTSET");
    require(automatic == "NOTSET" || automatic == "VALID" || automatic == "SAME_UPPER" ||
                automatic == "SAME_LOWER",
            "an auto_pad that ONNX knows expected, found " + in_quotes(automatic));
    Window2D window;
    for (size_t i = 0; i < spatial; ++i) {
        AxisWindow& axis = i + 1 == spatial ? window.x : window.y;
        axis.in = small(dims[i + 2], "a side");
        axis.kernel = small(kernel[i], "a kernel");
        axis.stride = small(strides[i], "a stride");
        axis.dilation = small(dilations[i], "a dilation");
        require(axis.kernel >= 1 && axis.stride >= 1 && axis.dilation >= 1,
                "kernel, stride and dilation of at least 1 expected, found " +
                    std::to_string(axis.kernel) + ", " + std::to_string(axis.stride) + " and " +
                    std::to_string(axis.dilation));
        if (automatic == "NOTSET") {
            for (const int64_t pad : {pads[i], pads[spatial + i]}) {
                require(pad >= 0 && pad <= 65535,
                        "pads of 0 to 65535 expected, found " + std::to_string(pad));
            }
            axis.begin = static_cast<int>(pads[i]);
            axis.end = static_cast<int>(pads[spatial + i]);
        } else if (automatic != "VALID" && !transposed) {
            const int64_t places = (int64_t{axis.in} + axis.stride - 1) / axis.stride;
            const int64_t total =
                std::max<int64_t>(0, (places - 1) * axis.stride + axis.extent() - axis.in);
            const int64_t less = total / 2;
            axis.begin = small(automatic == "SAME_UPPER" ? less : total - less, "padding");
            axis.end = small(total - axis.begin, "padding");
        }
    }
    if (spatial == 1) window.y = AxisWindow{1, 1, 1, 1, 0, 0};
    return window;
}

std::vector<float> Lowering::bias_of(size_t input, int channels) {
    if (!node().has_input(input)) return {};
    const Tensor& bias = required(input, "a bias");
    require(
        bias.size() == static_cast<size_t>(channels),
        "a bias of " + std::to_string(channels) + " numbers expected, found " + text_of(bias.dims));
    show_halves(input);
    return floats_of(bias);
}

Blob Lowering::convolve(Blob blob, int channels, const Window2D& window, const WeightRows& weights,
                        const std::vector<float>& bias, int activation) {
    require_places(window);
    if (needs_blocks(window)) {
        return convolve_blocks(blob, channels, window, weights, bias, activation);
    }
    AxisPlan y;
    AxisPlan x;
    plan_convolution(window, y, x);
    blob = pad_or_crop(blob, y.before, x.before, y.behind, x.behind);
    blob = emitter.conv(blob, channels, engine_window(window, y.pad, x.pad), weights, bias,
                        activation);
    return pad_or_crop(blob, -y.skip_first, -x.skip_first, -y.skip_last, -x.skip_last);
}

// The engine's depthwise convolution has ONNX's sizes for a padding that is the same on both sides.
Blob Lowering::convolve_depthwise(Blob blob, int multiplier, const Window2D& window,
                                  const WeightRows& weights, const std::vector<float>& bias,
                                  int activation) {
    require_places(window);
    const auto plan = [](const AxisWindow& axis) {
        AxisPlan result;
        AxisWindow even = axis;
        even.end = axis.begin;
        if (axis.begin >= 0 && even.places() == axis.places()) {
            result.pad = axis.begin;  // the difference reaches no place
        } else {
            result.pad = std::max(0, std::min(axis.begin, axis.end));
            result.before = axis.begin - result.pad;
            result.behind = axis.end - result.pad;
        }
        return result;
    };
    const AxisPlan y = plan(window.y);
    const AxisPlan x = plan(window.x);
    blob = pad_or_crop(blob, y.before, x.before, y.behind, x.behind);
    return emitter.depthwise(blob, multiplier, engine_window(window, y.pad, x.pad), weights, bias,
                             activation);
}

void Lowering::conv() {
    const Value& data = value(0);
    const Tensor& weights = required(1, "weights");
    const Dims& shape = weights.dims;
    require(shape.size() == data.dims.size() && shape.size() >= 3,
            "weights of as many dimensions as the input expected, found " + text_of(shape));
    const Extent in = extent_of(data.dims);
    const int groups = small(node().integer("group", 1), "groups");
    const int outputs = small(shape[0], "output channels");
    require(groups >= 1 && in.c % groups == 0 && outputs % groups == 0 && outputs >= 1 &&
                shape[1] == in.c / groups,
            "weights for " + std::to_string(in.c) + " channels in " + std::to_string(groups) +
                " groups expected, found " + text_of(shape));
    const Dims kernel = node().integers("kernel_shape", Dims(shape.begin() + 2, shape.end()));
    require(kernel == Dims(shape.begin() + 2, shape.end()),
            "a kernel_shape as the weights have it expected, found " + text_of(kernel));
    const Window2D window = window_of(data.dims, kernel);
    const std::vector<float> bias = bias_of(2, outputs);
    show_halves(1);
    const Blob map = map_of(data);
    const bool depthwise = groups > 1 && groups == in.c;
    const Fused fused = fuse(depthwise ? fusable({2, 8}) : fusable({2, 3, 4, 6, 8}));
    const KernelWeights kernels = kernel_weights(weights, window, groups, outputs, in.c);
    const Blob blob =
        depthwise ? convolve_depthwise(map, outputs / groups, window, kernels.by_tap(), bias,
                                       fused.activation)
                  : convolve(map, outputs, window, kernels.by_output(), bias, fused.activation);
    Dims dims = data.dims;
    dims[1] = outputs;
    dims.back() = blob.size.w;
    if (dims.size() == 4) dims[2] = blob.size.h;
    give(fused.output, dims, blob);
}

namespace {

// The engine's transposed convolution makes stride * size + 2 pixels and cuts as many from both
// ends: a kernel with zeros ahead of it moves the result, as long as it stays within stride + 2.
struct TransposedPlan {
    bool fits = false;
    int cut = 0;
    int zeros = 0;
};

TransposedPlan plan_transposed(const AxisWindow& axis, int64_t out) {
    TransposedPlan plan;
    const int64_t margin = int64_t{axis.in} * axis.stride + 2 - out;
    if (margin < 0 || margin % 2 != 0 || (axis.dilation != 1 && axis.kernel != 1)) return plan;
    plan.cut = static_cast<int>(margin / 2);
    plan.zeros = plan.cut - axis.begin;
    plan.fits = plan.zeros >= 0 && axis.kernel + plan.zeros <= axis.stride + 2;
    return plan;
}

}  // namespace

void Lowering::conv_transpose() {
    const Value& data = value(0);
    const Tensor& weights = required(1, "weights");
    const Dims& shape = weights.dims;
    require(shape.size() == data.dims.size() && shape.size() >= 3,
            "weights of as many dimensions as the input expected, found " + text_of(shape));
    const Extent in = extent_of(data.dims);
    const int groups = small(node().integer("group", 1), "groups");
    require(groups >= 1 && in.c % groups == 0 && shape[0] == in.c && shape[1] >= 1,
            "weights for " + std::to_string(in.c) + " channels in " + std::to_string(groups) +
                " groups expected, found " + text_of(shape));
    const int outputs = small(shape[1] * groups, "output channels");
    const Dims kernel = node().integers("kernel_shape", Dims(shape.begin() + 2, shape.end()));
    require(kernel == Dims(shape.begin() + 2, shape.end()),
            "a kernel_shape as the weights have it expected, found " + text_of(kernel));
    Window2D window = window_of(data.dims, kernel, true);
    const size_t spatial = data.dims.size() - 2;
    const Dims more = node().integers("output_padding", Dims(spatial, 0));
    const Dims wanted = node().integers("output_shape");
    require(more.size() == spatial && (wanted.empty() || wanted.size() == spatial),
            "output_padding and output_shape for the spatial dimensions expected");
    const std::string automatic = node().text("auto_pad", "NOTSET");
    Dims dims = data.dims;
    dims[1] = outputs;
    for (size_t i = 0; i < spatial; ++i) {
        AxisWindow& axis = i + 1 == spatial ? window.x : window.y;
        const int64_t full = int64_t{axis.stride} * (axis.in - 1) + axis.extent();
        require(more[i] >= 0 && more[i] <= 65535,
                "an output_padding of 0 to 65535 expected, found " + text_of(more));
        int64_t out = full + more[i] - axis.begin - axis.end;
        const bool same_size = automatic == "SAME_UPPER" || automatic == "SAME_LOWER";
        if (!wanted.empty() || same_size) {
            require(wanted.empty() || (wanted[i] >= 1 && wanted[i] <= 65535),
                    "an output_shape of 1 to 65535 expected, found " + text_of(wanted));
            out = wanted.empty() ? int64_t{axis.in} * axis.stride : wanted[i];
            const int64_t total = full + more[i] - out;
            // Negative padding, which asks for more pixels than there are.
            require(total >= 0,
                    "an output_shape of at most the full size expected, found " + text_of(wanted));
            // Before set 11 ONNX names both ends for the odd pixel.
            require(total % 2 == 0 || graph.opset >= 11,
                    "an even padding in total expected, found " + std::to_string(total) +
                        ": operator set " + std::to_string(graph.opset) +
                        " does not say at which end the odd pixel is");
            const int64_t less = total / 2;
            axis.begin = small(automatic == "SAME_UPPER" ? less : total - less, "padding");
            axis.end = small(total - axis.begin, "padding");
        }
        require(out >= 1, "an output of at least one pixel expected, found " + std::to_string(out));
        dims[i + 2] = out;
    }
    const std::vector<float> bias = bias_of(2, outputs);
    show_halves(1);
    Blob blob = map_of(data);
    const bool depthwise = groups > 1 && groups == in.c && outputs == in.c;
    const Extent out = extent_of(dims);
    KernelWeights kernels = kernel_weights(weights, window, groups, outputs, in.c);
    kernels.inputs_first = true;

    const TransposedPlan y = plan_transposed(window.y, out.h);
    const TransposedPlan x = plan_transposed(window.x, out.w);
    const auto is_three = [](const AxisWindow& axis, const TransposedPlan& plan) {
        return plan.fits && plan.cut == 1 && axis.kernel + plan.zeros == 3;
    };
    // Three by three is the one kernel of the GPU engine.
    const bool three = is_three(window.y, y) && is_three(window.x, x);
    if (!depthwise && !three &&
        transpose_by_blocks(blob, window, dims, kernels.by_output(), bias)) {
        return;
    }
    if (y.fits && x.fits) {
        require(!depthwise || !emitter.for_gpu(),
                "attribute \"group\" 1 for a transposed convolution on the GPU engine expected, "
                "found " +
                    std::to_string(groups));
        Window engine = engine_window(window, y.cut, x.cut);
        engine.kernel_h += y.zeros;
        engine.kernel_w += x.zeros;
        engine.dilation_h = engine.dilation_w = 1;
        kernels.zeros_y = static_cast<size_t>(y.zeros);
        kernels.zeros_x = static_cast<size_t>(x.zeros);
        const Fused fused = fuse(depthwise ? fusable({}) : fusable({2, 3, 4, 8}));
        blob = depthwise ? emitter.depthwise_deconvolution(blob, engine, kernels.by_channel(), bias,
                                                           fused.activation)
                         : emitter.deconvolution(blob, outputs, engine, kernels.by_output(), bias,
                                                 fused.activation);
        give(fused.output, dims, blob);
        return;
    }

    // Any other: zeros between the pixels, then a convolution with the kernel turned around.
    if (window.y.stride != 1 || window.x.stride != 1) {
        require(!emitter.for_gpu(),
                "attribute \"strides\" of 1, or kernel, pads and output of one transposed layer, "
                "on the GPU engine expected, found strides of " +
                    std::to_string(window.y.stride) + "x" + std::to_string(window.x.stride) +
                    " for a kernel of " + std::to_string(window.y.kernel) + "x" +
                    std::to_string(window.x.kernel));
        Window apart;
        apart.stride_h = window.y.stride;
        apart.stride_w = window.x.stride;
        const Range range = blob.range.with(0.0);
        blob = emitter.depthwise_deconvolution(blob, apart, all_of(1, 1.0f), {});
        blob.range = range;
    }
    const auto forward = [](const AxisWindow& axis, int pixels, int64_t places) {
        AxisWindow result = axis;
        result.stride = 1;
        result.in = pixels;
        result.begin = static_cast<int>(axis.extent() - 1 - axis.begin);
        result.end = static_cast<int>(places - 1 + axis.extent() - pixels - result.begin);
        return result;
    };
    const Window2D turned = {forward(window.y, blob.size.h, out.h),
                             forward(window.x, blob.size.w, out.w)};
    kernels.turned = true;
    const Fused fused = fuse(depthwise ? fusable({2, 8}) : fusable({2, 3, 4, 6, 8}));
    blob = depthwise ? convolve_depthwise(blob, 1, turned, kernels.by_tap(), bias, fused.activation)
                     : convolve(blob, outputs, turned, kernels.by_output(), bias, fused.activation);
    give(fused.output, dims, blob);
}

}  // namespace modelkit::onnx
