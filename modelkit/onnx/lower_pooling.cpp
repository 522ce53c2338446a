// Maximum and average pooling.
#include <algorithm>

#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

// With ceil_mode a last place may hang over the end; that much more border holds it.
void round_up(AxisWindow& axis) {
    const int64_t rest = (axis.in + int64_t{axis.begin} + axis.end - axis.extent()) % axis.stride;
    if (rest > 0) axis.end = small(axis.end + axis.stride - rest, "padding");
}

void require_pixels(const AxisWindow& axis) {
    require(axis.in + int64_t{axis.begin} + axis.end >= axis.extent(),
            "a window of at most the padded size expected, found an extent of " +
                std::to_string(axis.extent()) + " for " + std::to_string(axis.in) + " pixels");
    const int64_t last = (axis.places() - 1) * axis.stride - axis.begin;
    require(axis.begin < axis.extent() && last < axis.in,
            "windows that each see a pixel expected, found padding " + std::to_string(axis.begin) +
                " and " + std::to_string(axis.end) + " for a kernel of " +
                std::to_string(axis.kernel));
}

Window engine_window(const Window2D& window, int pad_w, int pad_h) {
    Window result;
    result.kernel_w = window.x.kernel;
    result.kernel_h = window.y.kernel;
    result.stride_w = window.x.stride;
    result.stride_h = window.y.stride;
    result.pad_w = pad_w;
    result.pad_h = pad_h;
    return result;
}

Dims pooled_dims(const Dims& from, const Blob& blob) {
    Dims dims = from;
    dims.back() = blob.size.w;
    if (dims.size() == 4) dims[2] = blob.size.h;
    return dims;
}

void require_undilated(const Window2D& window) {
    require(window.y.dilation == 1 && window.x.dilation == 1,
            "dilations of 1 expected: the engines' pooling has none");
}

}  // namespace

void Lowering::max_pool() {
    require(!node().has_output(1) || !uses.is_used(node().outputs[1]),
            "the indices of the maxima are not supported");
    // Zeros of a Pad before it, which are what the engine's border holds.
    const auto source = made.find(node().has_input(0) ? node().inputs[0] : std::string());
    require(source != made.end(), "input 0 is expected to be computed, found a constant");
    Value data = source->second;
    const int zeros = data.zero_border;
    data.zero_border = 0;
    const Dims padded = data.dims;
    if (zeros > 0) {
        for (size_t i = 2; i < data.dims.size(); ++i) data.dims[i] -= 2 * zeros;
    }
    Window2D window = window_of(data.dims, node().integers("kernel_shape"));
    require_undilated(window);
    if (zeros > 0) {
        window.y.begin = window.y.end = window.x.begin = window.x.end = zeros;
    }
    if (node().integer("ceil_mode", 0) != 0) {
        round_up(window.y);
        round_up(window.x);
    }
    require_pixels(window.y);
    require_pixels(window.x);
    Blob blob = map_of(data);
    const int border = window.y.begin;
    const bool even = window.y.end == border && window.x.begin == border && window.x.end == border;
    if (even && (border == 0 || zeros > 0 || blob.range.low >= 0)) {
        blob = emitter.pooling(blob, true, engine_window(window, border, border));
    } else {
        // What ONNX pads with is less than any number. Zeros do for numbers that are none below;
        // for all others the outermost pixels again, which are in the same windows anyway.
        if (blob.range.low >= 0) {
            blob = pad_or_crop(blob, window.y.begin, window.x.begin, window.y.end, window.x.end);
        } else {
            const auto lines = [](const AxisWindow& axis) {
                std::vector<int> list;
                for (int i = -axis.begin; i < axis.in + axis.end; ++i) {
                    list.push_back(std::clamp(i, 0, axis.in - 1));
                }
                return list;
            };
            const Range range = blob.range;
            if (window.y.begin != 0 || window.y.end != 0) {
                blob = gather_lines(blob, true, lines(window.y));
            }
            if (window.x.begin != 0 || window.x.end != 0) {
                blob = gather_lines(blob, false, lines(window.x));
            }
            blob.range = range;
        }
        blob = emitter.pooling(blob, true, engine_window(window, 0, 0));
    }
    give(pooled_dims(padded, blob), blob);
}

namespace {

// The engine divides by the whole window and then corrects the first and the last row and column
// for their padding: right when these, and only these, see the padding, and see all of it.
struct Margins {
    bool fits = false;
    int begin = 0;
    int end = 0;
};

Margins margins_of(const AxisWindow& axis) {
    Margins margins;
    const int64_t places = axis.places();
    const int64_t over = (places - 1) * axis.stride - axis.begin + axis.kernel - axis.in;
    margins.begin = axis.begin;
    margins.end = static_cast<int>(std::max<int64_t>(0, over));
    const bool apart = places >= 2 || margins.begin == 0 || margins.end == 0;
    margins.fits = margins.begin <= axis.stride && margins.end <= axis.stride && apart &&
                   axis.kernel - margins.begin <= axis.in && margins.begin < axis.kernel &&
                   margins.end < axis.kernel;
    return margins;
}

}  // namespace

// An average over the whole kernel becomes one over the pixels in it, line by line: lines that see
// as many pixels are scaled together.
Blob Lowering::without_padding(Blob blob, const AxisWindow& axis, bool rows) {
    const auto pixels = [&axis](int64_t place) {
        const int64_t first = place * axis.stride - axis.begin;
        return std::min<int64_t>(first + axis.kernel, axis.in) - std::max<int64_t>(first, 0);
    };
    const int64_t places = axis.places();
    bool whole = true;
    for (int64_t i = 0; i < places; ++i) whole = whole && pixels(i) == axis.kernel;
    if (whole) return blob;
    if (blob.size.c == 1) {
        return pick_channels(without_padding(pick_channels(blob, {0, 0}), axis, rows), {0});
    }
    int64_t pieces = 1;
    for (int64_t i = 1; i < places; ++i) pieces += pixels(i) != pixels(i - 1) ? 1 : 0;
    require_pieces(pieces);
    std::vector<Blob> parts;
    for (int64_t i = 0; i < places;) {
        int64_t end = i + 1;
        while (end < places && pixels(end) == pixels(i)) ++end;
        const int before = static_cast<int>(i);
        const int behind = static_cast<int>(places - end);
        Blob part = rows ? pad_or_crop(blob, -before, 0, -behind, 0)
                         : pad_or_crop(blob, 0, -before, 0, -behind);
        if (pixels(i) != axis.kernel) {
            const double wider = static_cast<double>(axis.kernel) / static_cast<double>(pixels(i));
            part = scaled_part(part, wider);
        }
        parts.push_back(part);
        i = end;
    }
    return join(parts, rows ? 1 : 2);
}

void Lowering::average_pool() {
    const Value& data = value(0);
    Window2D window = window_of(data.dims, node().integers("kernel_shape"));
    require_undilated(window);
    const bool counts = node().integer("count_include_pad", 0) != 0;
    Blob blob = map_of(data);
    if (node().integer("ceil_mode", 0) != 0) {
        const int64_t y = window.y.places();
        const int64_t x = window.x.places();
        round_up(window.y);
        round_up(window.x);
        require(!counts || (window.y.places() == y && window.x.places() == x),
                "count_include_pad with ceil_mode, where a window hangs over the end, has no one "
                "meaning");
    }
    require_pixels(window.y);
    require_pixels(window.x);
    const bool padded =
        window.y.begin != 0 || window.y.end != 0 || window.x.begin != 0 || window.x.end != 0;
    if (!padded || counts) {
        blob = pad_or_crop(blob, window.y.begin, window.x.begin, window.y.end, window.x.end);
        blob = emitter.pooling(blob, false, engine_window(window, 0, 0));
    } else {
        const Margins y = margins_of(window.y);
        const Margins x = margins_of(window.x);
        const bool corrects = y.fits && x.fits && y.begin == x.begin && y.end == x.end;
        if (corrects && (y.begin == y.end || !emitter.for_gpu())) {
            // Left and top take the one number of the record, right and bottom the other.
            blob = emitter.pooling(blob, false, engine_window(window, y.begin, y.end));
        } else {
            blob = pad_or_crop(blob, window.y.begin, window.x.begin, window.y.end, window.x.end);
            blob = emitter.pooling(blob, false, engine_window(window, 0, 0));
            blob = without_padding(blob, window.y, true);
            blob = without_padding(blob, window.x, false);
        }
    }
    give(pooled_dims(data.dims, blob), blob);
}

Blob Lowering::pool_all(const Blob& blob, bool maximum) {
    Window window;
    window.kernel_w = window.stride_w = blob.size.w;
    window.kernel_h = window.stride_h = blob.size.h;
    return emitter.pooling(blob, maximum, window);
}

void Lowering::global_pool() {
    const Value& data = value(0);
    const Blob map = map_of(data);
    Dims dims = data.dims;
    for (size_t i = 2; i < dims.size(); ++i) dims[i] = 1;
    give(dims, pool_all(map, node().op_type == "GlobalMaxPool"));
}

void Lowering::reduce_mean() {
    const Value& data = value(0);
    const size_t rank = data.dims.size();
    require(rank == 4 || rank == 3,
            "a tensor of 3 or 4 dimensions expected, found " + text_of(data.dims));
    const Dims given = node().integers("axes");
    std::set<size_t> axes;
    for (const int64_t axis : given) axes.insert(axis_of(axis, rank));
    std::set<size_t> spatial;
    for (size_t i = 2; i < rank; ++i) spatial.insert(i);
    require(axes == spatial, "a mean over all rows and columns expected, found " +
                                 (given.empty() ? "no axes" : "the axes " + text_of(given)) +
                                 " of " + text_of(data.dims));
    const bool keeps = node().integer("keepdims", 1) != 0;
    const Blob blob = pool_all(map_of(data), false);
    Dims dims = {1, blob.size.c};
    if (keeps) dims.resize(rank, 1);
    give(dims, blob);
}

}  // namespace modelkit::onnx
