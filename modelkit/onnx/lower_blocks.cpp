// Convolutions of stride 2 whose kernels the GPU engine lacks, by blocks of two by two pixels: the
// pixels of a block become channels, or channels the pixels of a block, and what is left is a
// convolution of stride 1 and half the reach. Each weight stands in it once, zeros between.
#include <algorithm>

#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

constexpr int BLOCK = 2;
constexpr int64_t MOST_WEIGHTS = int64_t{1} << 26;

int floor_half(int value) {
    return value >= 0 ? value / 2 : -((1 - value) / 2);
}

/// Which blocks a window sees, counted from the one that its place stands in.
struct Reach {
    int first = 0;
    int last = 0;
};

Reach reach_of(const AxisWindow& axis) {
    return {floor_half(-axis.begin), floor_half(axis.kernel - 1 - axis.begin)};
}

/// Pixel `phase` of the block at a place is made by tap phase + begin - 2 * t of the pixel t places
/// on.
Reach transposed_reach(const AxisWindow& axis) {
    return {-floor_half(axis.kernel - 1 - axis.begin), floor_half(axis.begin + BLOCK - 1)};
}

/// A square kernel that keeps the size on both engines, with the pixel of its place at `middle`.
struct Square {
    int side = 0;  ///< 0 where none reaches as far
    int middle = 0;
};

Square square_for(const Reach& y, const Reach& x) {
    for (const Square& square : {Square{1, 0}, Square{3, 1}, Square{4, 2}, Square{5, 2}}) {
        const auto holds = [&](const Reach& reach) {
            return -reach.first <= square.middle && reach.last < square.side - square.middle;
        };
        if (holds(y) && holds(x)) return square;
    }
    return {};
}

/// The window of a convolution of stride 1 that keeps the size.
AxisWindow keeping(const Square& square, int pixels) {
    AxisWindow axis;
    axis.in = pixels;
    axis.kernel = square.side;
    axis.begin = square.middle;
    axis.end = square.side - 1 - square.middle;
    return axis;
}

}  // namespace

bool Lowering::needs_blocks(const Window2D& window) const {
    const auto halves = [](const AxisWindow& axis) {
        return axis.stride == BLOCK && axis.dilation == 1 && axis.in % BLOCK == 0 &&
               axis.begin >= 0 && axis.places() == axis.in / BLOCK;
    };
    const int kernel = window.y.kernel;
    const bool known =
        kernel == window.x.kernel && (kernel == 1 || kernel == 3 || kernel == 4 || kernel == 5);
    return emitter.for_gpu() && !known && halves(window.y) && halves(window.x) &&
           square_for(reach_of(window.y), reach_of(window.x)).side > 0;
}

Blob Lowering::convolve_blocks(const Blob& blob, int channels, const Window2D& window,
                               const std::vector<float>& weights, const std::vector<float>& bias,
                               int activation) {
    const Square square = square_for(reach_of(window.y), reach_of(window.x));
    const int inputs = blob.size.c;
    const int64_t side = square.side;
    const int64_t per_output = int64_t{inputs} * BLOCK * BLOCK * side * side;
    require(channels * per_output <= MOST_WEIGHTS, "fewer weights by blocks of pixels");
    std::vector<float> blocks(static_cast<size_t>(channels * per_output));
    const int64_t taps = int64_t{window.y.kernel} * window.x.kernel;
    for (int64_t i = 0; i < static_cast<int64_t>(weights.size()); ++i) {
        const int64_t plane = i / taps;  // of output and input
        const auto y = static_cast<int>(i % taps / window.x.kernel) - window.y.begin;
        const auto x = static_cast<int>(i % window.x.kernel) - window.x.begin;
        const int64_t phase = (y - BLOCK * floor_half(y)) * BLOCK + x - BLOCK * floor_half(x);
        const int64_t row = floor_half(y) + square.middle;
        const int64_t column = floor_half(x) + square.middle;
        const int64_t to = ((plane * BLOCK * BLOCK + phase) * side + row) * side + column;
        blocks[static_cast<size_t>(to)] = weights[static_cast<size_t>(i)];
    }
    const Blob divided = emitter.pixel_shuffle(blob, BLOCK, false);
    return convolve(divided, channels,
                    {keeping(square, divided.size.h), keeping(square, divided.size.w)}, blocks,
                    bias, activation);
}

bool Lowering::transpose_by_blocks(const Blob& blob, const Window2D& window, const Dims& dims,
                                   const std::vector<float>& weights,
                                   const std::vector<float>& bias) {
    const Extent out = extent_of(dims);
    const auto doubles = [](const AxisWindow& axis, int pixels) {
        return axis.stride == BLOCK && axis.dilation == 1 && axis.begin >= 0 &&
               pixels == BLOCK * axis.in;
    };
    const Square square = square_for(transposed_reach(window.y), transposed_reach(window.x));
    if (!emitter.for_gpu() || !doubles(window.y, out.h) || !doubles(window.x, out.w) ||
        square.side == 0) {
        return false;
    }
    const int64_t side = square.side;
    const int64_t inputs = blob.size.c;
    const int64_t phases = BLOCK * BLOCK;
    require(out.c * phases * inputs * side * side <= MOST_WEIGHTS,
            "fewer weights by blocks of pixels");
    std::vector<float> blocks(static_cast<size_t>(out.c * phases * inputs * side * side));
    const int64_t taps = int64_t{window.y.kernel} * window.x.kernel;
    for (int64_t i = 0; i < static_cast<int64_t>(weights.size()); ++i) {
        const int64_t input = i / taps % inputs;
        const int64_t output = i / taps / inputs;
        const auto y = static_cast<int>(i % taps / window.x.kernel) - window.y.begin;
        const auto x = static_cast<int>(i % window.x.kernel) - window.x.begin;
        // Tap y falls on pixel y of the doubled picture, seen from the one that it takes.
        const int64_t phase = (y - BLOCK * floor_half(y)) * BLOCK + x - BLOCK * floor_half(x);
        const int64_t row = square.middle - floor_half(y);
        const int64_t column = square.middle - floor_half(x);
        const int64_t to =
            (((output * phases + phase) * inputs + input) * side + row) * side + column;
        blocks[static_cast<size_t>(to)] = weights[static_cast<size_t>(i)];
    }
    std::vector<float> repeated;
    for (const float term : bias) repeated.insert(repeated.end(), phases, term);
    const Fused fused = fuse(fusable({2, 3, 4, 6, 8}));
    const Blob divided = convolve(blob, small(out.c * phases, "channels by blocks of pixels"),
                                  {keeping(square, blob.size.h), keeping(square, blob.size.w)},
                                  blocks, repeated, fused.activation);
    give(fused.output, dims, emitter.pixel_shuffle(divided, BLOCK, true));
    return true;
}

}  // namespace modelkit::onnx
