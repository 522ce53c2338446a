#include <algorithm>
#include <limits>
#include <set>
#include <string>

#include "modelkit/onnx/evaluator_operators.h"
#include "modelkit/onnx/evaluator_windows.h"

namespace modelkit::onnx::evaluation {

namespace {

// NaN wins, whichever side it is on.
double larger(double most, double value) {
    return value > most || value != value ? value : most;
}

// Calls `window(first row, last row, first column, last column)` for each output pixel of a plane,
// in order; the bounds are in input pixels and may lie outside.
template <typename Window>
void for_each_window(const Windows& windows, Window window) {
    const WindowAxis& rows = windows[0];
    const WindowAxis& columns = windows[1];
    for (int64_t oy = 0; oy < rows.out; ++oy)
        for (int64_t ox = 0; ox < columns.out; ++ox) window(rows.first(oy), columns.first(ox));
}

// The first of `axis`'s taps from `first` on that is not before the input.
int64_t first_inside(const WindowAxis& axis, int64_t first) {
    return first >= 0 ? first
                      : first + (-first + axis.dilation - 1) / axis.dilation * axis.dilation;
}

// One behind the last pixel inside the input that the window may touch.
int64_t end_inside(const WindowAxis& axis, int64_t first) {
    return std::min(axis.in, first + axis.extent());
}

// `pool(plane, window's first row, first column)` for every window of every plane.
template <typename Pool>
void pool_planes(Call& call, const Windows& windows, const Planes& from, Pool pool) {
    const size_t axes = from.spatial.size();
    const Dims dims = dims_of(from.batch, from.channels, windows, axes);
    std::vector<double> y = call.room<double>(dims);
    // Only what is inside the input is visited, whatever the kernel.
    call.spend(
        product(call, {static_cast<int64_t>(y.size()), std::min(windows[0].kernel, windows[0].in),
                       std::min(windows[1].kernel, windows[1].in)}));
    const Numbers input(call.input(0));
    const int64_t plane = windows[0].in * windows[1].in;
    size_t next = 0;
    for (int64_t q = 0; q < from.batch * from.channels; ++q) {
        const double* pixels = input.data() + q * plane;
        for_each_window(
            windows, [&](int64_t row, int64_t column) { y[next++] = pool(pixels, row, column); });
    }
    call.give(dims, std::move(y));
}

}  // namespace

void max_pool(Call& call) {
    call.require(!call.node.has_output(1), "the output \"Indices\" is not supported");
    const Planes from = planes(call, call.real(0));
    Windows windows = taps(call, from.spatial, {});
    place_windows(call, windows, from.spatial.size(), true);
    pool_planes(call, windows, from, [&](const double* pixels, int64_t row, int64_t column) {
        double most = -std::numeric_limits<double>::infinity();
        bool any = false;
        for (int64_t y = first_inside(windows[0], row); y < end_inside(windows[0], row);
             y += windows[0].dilation) {
            for (int64_t x = first_inside(windows[1], column); x < end_inside(windows[1], column);
                 x += windows[1].dilation) {
                const double value = pixels[y * windows[1].in + x];
                most = larger(most, value);
                any = true;
            }
        }
        call.require(any, "a window lies in the padding altogether: a maximum of nothing");
        return most;
    });
}

// With `count_include_pad` the divisor counts the padding, but not what rounding the size up adds
// behind it: the definition is silent there, and PyTorch, where such graphs come from, does so.
void average_pool(Call& call) {
    const Planes from = planes(call, call.real(0));
    Windows windows = taps(call, from.spatial, {});
    place_windows(call, windows, from.spatial.size(), true);
    const bool with_padding = call.node.integer("count_include_pad", 0) != 0;
    const auto counted = [&](const WindowAxis& axis, int64_t first) {
        if (!with_padding) return end_inside(axis, first) - std::max<int64_t>(first, 0);
        return std::min(axis.in + axis.pad_end, first + axis.extent()) - first;
    };
    pool_planes(call, windows, from, [&](const double* pixels, int64_t row, int64_t column) {
        double sum = 0;
        for (int64_t y = std::max<int64_t>(row, 0); y < end_inside(windows[0], row); ++y)
            for (int64_t x = std::max<int64_t>(column, 0); x < end_inside(windows[1], column); ++x)
                sum += pixels[y * windows[1].in + x];
        const int64_t count = counted(windows[0], row) * counted(windows[1], column);
        if (count <= 0) call.refuse("a window lies in the padding altogether: a mean of nothing");
        return sum / static_cast<double>(count);
    });
}

namespace {

// Reduces axes: `start`, then `step(accumulated, value)`, then `finish(accumulated, count)`.
template <typename Step, typename Finish>
void reduce(Call& call, const std::set<size_t>& axes, bool keep, double start, Step step,
            Finish finish) {
    const Tensor& x = call.real(0);
    Dims kept;
    Dims reduced = x.dims;
    int64_t count = 1;
    for (size_t i = 0; i < x.dims.size(); ++i) {
        if (axes.count(i) != 0) {
            count *= x.dims[i];
            reduced[i] = 1;
            if (keep) kept.push_back(1);
        } else {
            kept.push_back(x.dims[i]);
        }
    }
    call.require(count > 0, "there is nothing to reduce");
    std::vector<double> y = call.room<double>(kept, start);
    call.spend(static_cast<int64_t>(x.size()));
    const Numbers input(x);
    size_t next = 0;
    walk<1>(x.dims, {broadcast_strides(reduced, x.dims)}, [&](const std::array<int64_t, 1>& at) {
        double& to = y[static_cast<size_t>(at[0])];
        to = step(to, input[next++]);
    });
    for (double& value : y) value = finish(value, static_cast<double>(count));
    call.give(kept, std::move(y));
}

double plus(double a, double b) {
    return a + b;
}

double mean(double sum, double count) {
    return sum / count;
}

std::set<size_t> spatial_axes(const Call& call) {
    const size_t rank = call.input(0).dims.size();
    call.require(rank >= 3, "the input has shape " + text_of(call.input(0).dims) +
                                ", expected batch, channels and spatial axes");
    std::set<size_t> axes;
    for (size_t i = 2; i < rank; ++i) axes.insert(i);
    return axes;
}

}  // namespace

void global_max_pool(Call& call) {
    reduce(call, spatial_axes(call), true, -std::numeric_limits<double>::infinity(), larger,
           [](double most, double) { return most; });
}

void global_average_pool(Call& call) {
    reduce(call, spatial_axes(call), true, 0, plus, mean);
}

void reduce_mean(Call& call) {
    const size_t rank = call.input(0).dims.size();
    std::set<size_t> axes;
    for (const int64_t axis : call.node.integers("axes")) axes.insert(call.axis(axis, rank));
    for (size_t i = 0; i < rank && call.node.find("axes", Attribute::Kind::Ints) == nullptr; ++i)
        axes.insert(i);
    reduce(call, axes, call.node.integer("keepdims", 1) != 0, 0, plus, mean);
}

}  // namespace modelkit::onnx::evaluation
