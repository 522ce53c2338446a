#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <utility>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx::evaluation {

namespace {

/// An output position along an axis as the mean of two input positions.
struct Blend {
    int64_t first = 0;
    int64_t second = 0;
    double weight = 0;  ///< of the second
};

/// One axis on its way from `in` to `out` pixels.
struct Stretch {
    int64_t in = 0;
    int64_t out = 0;
    double scale = 1;
};

/// Where output pixel `o` lies between the input's, as a number of input pixels.
using Coordinate = std::function<double(const Stretch&, int64_t)>;
/// The input pixel for a coordinate between pixels.
using Nearest = std::function<double(double)>;

int64_t clamped(double position, int64_t size) {
    if (!(position > 0)) return 0;
    return position >= static_cast<double>(size - 1) ? size - 1 : static_cast<int64_t>(position);
}

Blend blend_at(const Stretch& axis, double position, const Nearest& nearest) {
    if (nearest) {
        const int64_t index = clamped(nearest(position), axis.in);
        return {index, index, 0};
    }
    const double below = std::floor(position);
    return {clamped(below, axis.in), clamped(below + 1, axis.in), position - below};
}

Tensor stretched(Call& call, const Tensor& x, size_t axis, const Stretch& stretch,
                 const Coordinate& coordinate, const Nearest& nearest) {
    Dims dims = x.dims;
    dims[axis] = stretch.out;
    std::vector<double> y = call.room<double>(dims);
    const Cut at = cut(x.dims, axis);
    const Numbers input(x);
    std::vector<Blend> blends;
    if (!y.empty()) {
        call.room<double>({stretch.out});
        for (int64_t o = 0; o < stretch.out; ++o)
            blends.push_back(blend_at(stretch, coordinate(stretch, o), nearest));
    }
    size_t next = 0;
    for (int64_t outer = 0; outer < at.outer && !y.empty(); ++outer) {
        const double* from = input.data() + outer * at.size * at.inner;
        for (const Blend& blend : blends) {
            const double* first = from + blend.first * at.inner;
            const double* second = from + blend.second * at.inner;
            for (int64_t i = 0; i < at.inner; ++i, ++next) {
                // The weightless neighbour must not enter: it may be infinite.
                y[next] = blend.weight == 0
                              ? first[i]
                              : (1 - blend.weight) * first[i] + blend.weight * second[i];
            }
        }
    }
    return Tensor::of_doubles(std::move(dims), std::move(y));
}

// Axis after axis: both modes are separable.
void stretch_all(Call& call, const std::vector<Stretch>& axes, const Coordinate& coordinate,
                 const Nearest& nearest) {
    const Tensor& x = call.real(0);
    Tensor result = call.moved(x, x.dims, [](const auto& from, auto& to) { to = from; });
    for (size_t i = 0; i < axes.size(); ++i) {
        if (axes[i].in == axes[i].out && axes[i].scale == 1) continue;
        call.require(axes[i].in >= 1, "the input has no pixels");
        result = stretched(call, result, i, axes[i], coordinate, nearest);
    }
    call.give(std::move(result));
}

// Output sizes by scales, as the definition has it: the product's integral part. The product is
// taken in float, the type of the scales: 10 times 0.7 is 7, not a little less.
std::vector<Stretch> by_scales(const Call& call, const std::vector<double>& scales) {
    const Dims& dims = call.input(0).dims;
    call.require(scales.size() == dims.size(), "there are " + std::to_string(scales.size()) +
                                                   " scales for the input " + text_of(dims));
    std::vector<Stretch> axes;
    for (size_t i = 0; i < dims.size(); ++i) {
        call.require(scales[i] > 0, "a scale is not above 0");
        const float size = static_cast<float>(dims[i]) * static_cast<float>(scales[i]);
        call.require(size < 0x1p40f, "a scale of " + std::to_string(scales[i]) + " is too large");
        axes.push_back(
            {dims[i], static_cast<int64_t>(std::floor(static_cast<double>(size))), scales[i]});
    }
    return axes;
}

// Coordinates by the arithmetic of `Real`. Between two pixels the result goes on evenly, and the
// coordinate is taken in double. The nearest one jumps, and which it is where a coordinate meets a
// jump is as the scale's own type has it: with float scales the coordinates are floats.
template <typename Real>
struct Coordinates {
    static double asymmetric(const Stretch& axis, int64_t o) {
        return static_cast<double>(static_cast<Real>(o) / static_cast<Real>(axis.scale));
    }

    static Real from_edge(const Stretch& axis, int64_t o) {
        const Real middle = static_cast<Real>(o) + Real(0.5);
        return middle / static_cast<Real>(axis.scale);
    }

    static double half_pixel(const Stretch& axis, int64_t o) {
        return static_cast<double>(from_edge(axis, o) - Real(0.5));
    }

    static double pytorch_half_pixel(const Stretch& axis, int64_t o) {
        return axis.out > 1 ? half_pixel(axis, o) : 0;
    }

    static double align_corners(const Stretch& axis, int64_t o) {
        if (axis.out == 1) return 0;
        const Real product = static_cast<Real>(o) * static_cast<Real>(axis.in - 1);
        return static_cast<double>(product / static_cast<Real>(axis.out - 1));
    }

    static double tf_half_pixel_for_nn(const Stretch& axis, int64_t o) {
        return static_cast<double>(from_edge(axis, o));
    }
};

template <typename Real>
Coordinate coordinate_of(const Call& call) {
    using In = Coordinates<Real>;
    const std::string mode = call.node.text("coordinate_transformation_mode", "half_pixel");
    if (mode == "half_pixel") return In::half_pixel;
    if (mode == "pytorch_half_pixel") return In::pytorch_half_pixel;
    if (mode == "align_corners") return In::align_corners;
    if (mode == "asymmetric") return In::asymmetric;
    if (mode == "tf_half_pixel_for_nn" && call.opset < 13) return In::tf_half_pixel_for_nn;
    call.refuse("attribute \"coordinate_transformation_mode\" is " + in_quotes(mode) +
                ", which is not supported");
}

Nearest nearest_of(const Call& call) {
    const std::string mode = call.node.text("nearest_mode", "round_prefer_floor");
    if (mode == "round_prefer_floor") return [](double x) { return std::ceil(x - 0.5); };
    if (mode == "round_prefer_ceil") return [](double x) { return std::floor(x + 0.5); };
    if (mode == "floor") return [](double x) { return std::floor(x); };
    if (mode == "ceil") return [](double x) { return std::ceil(x); };
    call.refuse("attribute \"nearest_mode\" is " + in_quotes(mode));
}

bool is_linear(const Call& call) {
    const std::string mode = call.node.text("mode", "nearest");
    // Some exporters still give Upsample the name that its first form had.
    const bool linear = mode == "linear" || (mode == "bilinear" && call.node.op_type == "Upsample");
    call.require(mode == "nearest" || linear,
                 "attribute \"mode\" is " + in_quotes(mode) + ", which is not supported");
    return linear;
}

// The forms before set 11 say nothing of coordinates. All implementations take the asymmetric ones
// and, for enlargements, the pixel at or before them; reductions they treat differently.
void old_upsample(Call& call, const std::vector<double>& scales) {
    if (is_linear(call)) {
        return stretch_all(call, by_scales(call, scales), Coordinates<double>::asymmetric, nullptr);
    }
    for (const double scale : scales) {
        call.require(
            scale >= 1 || 1 / scale == std::floor(1 / scale),
            "a scale of " + std::to_string(scale) + " leaves open which pixels are the nearest");
    }
    stretch_all(call, by_scales(call, scales), Coordinates<float>::asymmetric,
                [](double x) { return std::floor(x); });
}

std::vector<double> scales_of(const Call& call, size_t index) {
    const Tensor& scales = call.real(index);
    call.require(scales.dims.size() == 1 && scales.size() <= 64,
                 "the scales have shape " + text_of(scales.dims));
    return scales.numbers();
}

}  // namespace

void upsample_by_attribute(Call& call) {
    const Attribute* scales = call.node.find("scales", Attribute::Kind::Floats);
    call.require(scales != nullptr, "has no attribute \"scales\"");
    for (const double scale : scales->floats) call.require(scale >= 1, "a scale is below 1");
    old_upsample(call, scales->floats);
}

void upsample(Call& call) {
    const std::vector<double> scales = scales_of(call, 1);
    for (const double scale : scales) call.require(scale >= 1, "a scale is below 1");
    old_upsample(call, scales);
}

void resize_by_scales(Call& call) {
    old_upsample(call, scales_of(call, 1));
}

void resize(Call& call) {
    const Dims& dims = call.real(0).dims;
    const bool has_scales = call.has(2) && call.input(2).size() != 0;
    const bool has_sizes = call.has(3) && call.input(3).size() != 0;
    call.require(has_scales != has_sizes, "expected either scales or sizes");
    std::vector<Stretch> axes;
    if (has_scales) {
        axes = by_scales(call, scales_of(call, 2));
    } else {
        const Dims sizes = call.list(3);
        call.require(sizes.size() == dims.size(),
                     "the sizes " + text_of(sizes) + " do not fit the input " + text_of(dims));
        for (size_t i = 0; i < dims.size(); ++i) {
            call.require(sizes[i] >= 1 && dims[i] >= 1, "a size of the input or output is below 1");
            axes.push_back(
                {dims[i], sizes[i], static_cast<double>(sizes[i]) / static_cast<double>(dims[i])});
        }
    }
    if (is_linear(call)) return stretch_all(call, axes, coordinate_of<double>(call), nullptr);
    stretch_all(call, axes, coordinate_of<float>(call), nearest_of(call));
}

namespace {

int64_t block_of(const Call& call) {
    const int64_t block = call.node.integer("blocksize", 0);
    call.require(block >= 1 && block <= 65535,
                 "attribute \"blocksize\" is " + std::to_string(block));
    const Tensor& x = call.input(0);
    call.require(x.dims.size() == 4 && x.size() != 0,
                 "the input has shape " + text_of(x.dims) + ", expected four dimensions");
    return block;
}

}  // namespace

// Output pixel (y, x) of channel c comes from channel (y % r, x % r, c) in the order DCR or
// (c, y % r, x % r) in the order CRD.
void depth_to_space(Call& call) {
    const Tensor& x = call.input(0);
    const int64_t r = block_of(call);
    const std::string mode = call.node.text("mode", "DCR");
    call.require(mode == "DCR" || mode == "CRD", "attribute \"mode\" is " + in_quotes(mode));
    call.require(
        x.dims[1] % (r * r) == 0,
        std::to_string(x.dims[1]) + " channels do not divide by a block of " + std::to_string(r));
    const int64_t channels = x.dims[1] / (r * r);
    const int64_t plane = x.dims[2] * x.dims[3];
    const int64_t over_c = mode == "DCR" ? plane : plane * r * r;
    const int64_t over_block = mode == "DCR" ? plane * channels : plane;
    const Dims shape = {x.dims[0], channels, x.dims[2], r, x.dims[3], r};
    const Dims strides = {plane * x.dims[1], over_c, x.dims[3], over_block * r, 1, over_block};
    call.give(call.moved(x, {x.dims[0], channels, x.dims[2] * r, x.dims[3] * r},
                         [&](const auto& from, auto& to) {
                             size_t next = 0;
                             walk<1>(shape, {strides}, [&](const std::array<int64_t, 1>& at) {
                                 to[next++] = from[static_cast<size_t>(at[0])];
                             });
                         }));
}

// Pixel (y, x) of channel c goes to channel (y % r, x % r, c).
void space_to_depth(Call& call) {
    const Tensor& x = call.input(0);
    const int64_t r = block_of(call);
    call.require(
        x.dims[2] % r == 0 && x.dims[3] % r == 0,
        "the input " + text_of(x.dims) + " does not divide by a block of " + std::to_string(r));
    const int64_t width = x.dims[3];
    const Dims shape = {x.dims[0], r, r, x.dims[1], x.dims[2] / r, width / r};
    const Dims strides = {x.dims[1] * x.dims[2] * width, width, 1, x.dims[2] * width, width * r, r};
    call.give(call.moved(x, {x.dims[0], x.dims[1] * r * r, x.dims[2] / r, width / r},
                         [&](const auto& from, auto& to) {
                             size_t next = 0;
                             walk<1>(shape, {strides}, [&](const std::array<int64_t, 1>& at) {
                                 to[next++] = from[static_cast<size_t>(at[0])];
                             });
                         }));
}

}  // namespace modelkit::onnx::evaluation
