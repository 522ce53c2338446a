#include <algorithm>
#include <string>

#include "modelkit/onnx/evaluator_operators.h"
#include "modelkit/onnx/evaluator_windows.h"

namespace modelkit::onnx::evaluation {

namespace {

/// The output positions whose tap `k` reads inside the input: [begin, end).
struct Range {
    int64_t begin = 0;
    int64_t end = 0;
};

Range inside(const WindowAxis& axis, int64_t k) {
    const int64_t shift = axis.pad_begin - k * axis.dilation;  // reads o * stride - shift
    Range range;
    range.begin = shift > 0 ? (shift + axis.stride - 1) / axis.stride : 0;
    range.end = axis.in + shift > 0 ? (axis.in + shift - 1) / axis.stride + 1 : 0;
    range.begin = std::min(range.begin, axis.out);
    range.end = std::clamp(range.end, range.begin, axis.out);
    return range;
}

int64_t group_of(const Call& call) {
    const int64_t groups = call.node.integer("group", 1);
    call.require(groups >= 1, "attribute \"group\" is " + std::to_string(groups));
    return groups;
}

// The bias, or zeros.
std::vector<double> bias_of(Call& call, int64_t channels) {
    if (!call.has(2)) return call.room<double>({channels});
    const Tensor& bias = call.real(2);
    call.require(bias.dims == Dims{channels},
                 "the bias has shape " + text_of(bias.dims) + ", expected " + text_of({channels}));
    return bias.numbers();
}

// The sizes that both convolutions share: planes of pixels in and out, a kernel's taps.
struct Sizes {
    int64_t in = 0;
    int64_t out = 0;
    int64_t taps = 0;
};

Sizes sizes_of(const Call& call, const Windows& windows) {
    return {product(call, {windows[0].in, windows[1].in}),
            product(call, {windows[0].out, windows[1].out}),
            product(call, {windows[0].kernel, windows[1].kernel})};
}

std::vector<double> planes_of_bias(Call& call, const Dims& dims, int64_t plane,
                                   const std::vector<double>& bias) {
    std::vector<double> to = call.room<double>(dims);
    for (size_t i = 0; i < to.size(); ++i) {
        to[i] = bias[i / static_cast<size_t>(plane) % bias.size()];
    }
    return to;
}

// out[o] += weight * in[position of o's tap], for all output pixels whose tap is inside.
void add_tap(const Windows& windows, int64_t ky, int64_t kx, double weight, const double* in,
             double* out) {
    const WindowAxis& rows = windows[0];
    const WindowAxis& columns = windows[1];
    const Range y = inside(rows, ky);
    const Range x = inside(columns, kx);
    if (x.begin == x.end) return;
    for (int64_t oy = y.begin; oy < y.end; ++oy) {
        const double* from = in + (rows.first(oy) + ky * rows.dilation) * columns.in +
                             columns.first(x.begin) + kx * columns.dilation;
        double* to = out + oy * columns.out + x.begin;
        const int64_t count = x.end - x.begin;
        for (int64_t i = 0; i < count; ++i) to[i] += weight * from[i * columns.stride];
    }
}

}  // namespace

// Y[n][m][o] = B[m] + sum over c, k of W[m][c][k] * X[n][group of m][c][o's tap k].
void conv(Call& call) {
    const Tensor& x = call.real(0);
    const Tensor& w = call.real(1);
    const Planes from = planes(call, x);
    const size_t axes = from.spatial.size();
    const int64_t groups = group_of(call);
    if (w.dims.size() != axes + 2 || w.dims[1] > MOST_PIXELS / groups ||
        w.dims[1] * groups != from.channels || w.dims[0] < 1 || w.dims[0] % groups != 0) {
        call.refuse("the weights have shape " + text_of(w.dims) + ", which does not fit input " +
                    text_of(x.dims) + " in " + std::to_string(groups) + " group(s)");
    }
    Windows windows = taps(call, from.spatial, Dims(w.dims.begin() + 2, w.dims.end()));
    place_windows(call, windows, axes, false);
    const Sizes sizes = sizes_of(call, windows);
    const int64_t filters = w.dims[0];
    const int64_t depth = w.dims[1];
    const Dims dims = dims_of(from.batch, filters, windows, axes);
    std::vector<double> y = planes_of_bias(call, dims, sizes.out, bias_of(call, filters));
    call.spend(product(call, {static_cast<int64_t>(y.size()), depth, sizes.taps}));
    const Numbers input(x);
    const Numbers weights(w);
    for (int64_t n = 0; n < from.batch; ++n) {
        for (int64_t m = 0; m < filters; ++m) {
            const int64_t group = m / (filters / groups);
            double* out = y.data() + (n * filters + m) * sizes.out;
            for (int64_t c = 0; c < depth; ++c) {
                const double* in =
                    input.data() + (n * from.channels + group * depth + c) * sizes.in;
                const double* taps = weights.data() + (m * depth + c) * sizes.taps;
                for (int64_t ky = 0; ky < windows[0].kernel; ++ky)
                    for (int64_t kx = 0; kx < windows[1].kernel; ++kx)
                        add_tap(windows, ky, kx, taps[ky * windows[1].kernel + kx], in, out);
            }
        }
    }
    call.give(dims, std::move(y));
}

namespace {

// Padding and output sizes of a transposed convolution. In these windows `in` is the large side,
// the output, and `out` the small one: the operator is the convolution's transpose.
void place_transposed(const Call& call, Windows& windows, size_t axes) {
    const Node& node = call.node;
    const std::string mode = node.text("auto_pad", "NOTSET");
    call.require(
        mode == "NOTSET" || mode == "VALID" || mode == "SAME_UPPER" || mode == "SAME_LOWER",
        "attribute \"auto_pad\" is " + in_quotes(mode));
    const Dims extra = node.integers("output_padding", Dims(axes, 0));
    call.require(extra.size() == axes, "attribute \"output_padding\" is " + text_of(extra));
    const Attribute* shape = node.find("output_shape", Attribute::Kind::Ints);
    const bool same = mode == "SAME_UPPER" || mode == "SAME_LOWER";
    if (mode == "NOTSET") read_pads(call, windows, axes);
    Dims wanted;
    if (shape != nullptr) {
        wanted = shape->ints;
        // Some exporters write batch and channels, too.
        if (wanted.size() == axes + 2) wanted.erase(wanted.begin(), wanted.begin() + 2);
        call.require(wanted.size() == axes,
                     "attribute \"output_shape\" is " + text_of(shape->ints));
    }
    for (size_t i = 0; i < axes; ++i) {
        WindowAxis& axis = windows[2 - axes + i];
        call.require(extra[i] >= 0 && extra[i] < std::max(axis.stride, axis.dilation),
                     "attribute \"output_padding\" is " + text_of(extra) +
                         ", expected less than stride or dilation");
        call.require(axis.out >= 1 && axis.out <= MOST_PIXELS / axis.stride,
                     "the input has no pixels, or too many");
        const int64_t whole = (axis.out - 1) * axis.stride + axis.extent() + extra[i];
        if (!same && shape == nullptr) {
            axis.in = whole - axis.pad_begin - axis.pad_end;
            call.require(axis.in >= 1, "the padding leaves no pixels");
            continue;
        }
        axis.in = shape != nullptr ? wanted[i] : axis.out * axis.stride;
        call.require(axis.in >= 1 && axis.in <= MOST_PIXELS,
                     "an output of " + std::to_string(axis.in) + " pixels is not possible");
        const int64_t total = whole - axis.in;
        if (total < 0) {
            // Pixels that no window reaches. The definition's division of a negative number says
            // nothing of where; its own example has them at the end.
            call.require(mode == "NOTSET", "an output of " + std::to_string(axis.in) +
                                               " pixels cannot be cut from " +
                                               std::to_string(whole));
            axis.pad_begin = 0;
            axis.pad_end = total;
            continue;
        }
        // Before set 11 the text says both that SAME_UPPER pads more at the end and that it pads
        // more at the beginning.
        call.require(total % 2 == 0 || call.opset >= 11,
                     "odd padding in total, which operator set " + std::to_string(call.opset) +
                         " does not say how to split");
        axis.pad_begin = mode == "SAME_UPPER" ? total / 2 : total - total / 2;
        axis.pad_end = total - axis.pad_begin;
    }
}

// large[position of o's tap] += weight * small[o], for all small pixels whose tap is inside.
void spread_tap(const Windows& windows, int64_t ky, int64_t kx, double weight, const double* small,
                double* large) {
    const WindowAxis& rows = windows[0];
    const WindowAxis& columns = windows[1];
    const Range y = inside(rows, ky);
    const Range x = inside(columns, kx);
    if (x.begin == x.end) return;
    for (int64_t oy = y.begin; oy < y.end; ++oy) {
        const double* from = small + oy * columns.out + x.begin;
        double* to = large + (rows.first(oy) + ky * rows.dilation) * columns.in +
                     columns.first(x.begin) + kx * columns.dilation;
        const int64_t count = x.end - x.begin;
        for (int64_t i = 0; i < count; ++i) to[i * columns.stride] += weight * from[i];
    }
}

}  // namespace

// Every input pixel adds W[c][m][k] times itself to the output pixels of its window.
void conv_transpose(Call& call) {
    const Tensor& x = call.real(0);
    const Tensor& w = call.real(1);
    const Planes from = planes(call, x);
    const size_t axes = from.spatial.size();
    const int64_t groups = group_of(call);
    if (w.dims.size() != axes + 2 || w.dims[0] != from.channels || from.channels % groups != 0 ||
        w.dims[1] < 1 || w.dims[1] > MOST_PIXELS / groups) {
        call.refuse("the weights have shape " + text_of(w.dims) + ", which does not fit input " +
                    text_of(x.dims) + " in " + std::to_string(groups) + " group(s)");
    }
    Windows windows = taps(call, from.spatial, Dims(w.dims.begin() + 2, w.dims.end()));
    for (WindowAxis& axis : windows) std::swap(axis.in, axis.out);
    place_transposed(call, windows, axes);
    const Sizes sizes = sizes_of(call, windows);
    const int64_t filters = w.dims[1] * groups;
    Dims dims = {from.batch, filters};
    for (size_t i = 2 - axes; i < 2; ++i) dims.push_back(windows[i].in);
    std::vector<double> y = planes_of_bias(call, dims, sizes.in, bias_of(call, filters));
    call.spend(product(call, {static_cast<int64_t>(x.size()), w.dims[1], sizes.taps}));
    const Numbers input(x);
    const Numbers weights(w);
    for (int64_t n = 0; n < from.batch; ++n) {
        for (int64_t c = 0; c < from.channels; ++c) {
            const int64_t group = c / (from.channels / groups);
            const double* small = input.data() + (n * from.channels + c) * sizes.out;
            for (int64_t m = 0; m < w.dims[1]; ++m) {
                double* large = y.data() + (n * filters + group * w.dims[1] + m) * sizes.in;
                const double* taps = weights.data() + (c * w.dims[1] + m) * sizes.taps;
                for (int64_t ky = 0; ky < windows[0].kernel; ++ky)
                    for (int64_t kx = 0; kx < windows[1].kernel; ++kx)
                        spread_tap(windows, ky, kx, taps[ky * windows[1].kernel + kx], small,
                                   large);
            }
        }
    }
    call.give(dims, std::move(y));
}

}  // namespace modelkit::onnx::evaluation
