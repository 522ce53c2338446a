// Convolutions of stride 2 whose kernels the GPU engine lacks, by blocks of two by two pixels: the
// pixels of a block become channels, or channels the pixels of a block, and what is left is a
// convolution of stride 1 and half the reach. Each weight stands in it once, zeros between.
#include <algorithm>

#include "modelkit/onnx/lowering.h"

namespace modelkit::onnx {

namespace {

constexpr int BLOCK = 2;
constexpr int PHASES = BLOCK * BLOCK;
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

/// A row of weights in the order [output][y][x] of a square kernel.
struct Place {
    size_t output;
    int y;
    int x;
};

Place place_of(size_t row, const Square& square) {
    const auto side = static_cast<size_t>(square.side);
    return {row / (side * side), static_cast<int>(row / side % side), static_cast<int>(row % side)};
}

bool has_tap(const Window2D& window, int y, int x) {
    return y >= 0 && x >= 0 && y < window.y.kernel && x < window.x.kernel;
}

void require_weights(int64_t count) {
    require(count <= MOST_WEIGHTS, "at most " + std::to_string(MOST_WEIGHTS) +
                                       " weights by blocks of pixels expected, found " +
                                       std::to_string(count));
}

size_t row_of(const Window2D& window, size_t output, int y, int x) {
    const auto h = static_cast<size_t>(window.y.kernel);
    const auto w = static_cast<size_t>(window.x.kernel);
    return (output * h + static_cast<size_t>(y)) * w + static_cast<size_t>(x);
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
                               const WeightRows& weights, const std::vector<float>& bias,
                               int activation) {
    const Square square = square_for(reach_of(window.y), reach_of(window.x));
    const auto inputs = static_cast<size_t>(blob.size.c);
    require_weights(int64_t{channels} * blob.size.c * PHASES * square.side * square.side);
    std::vector<float> pixels(inputs);
    const WeightRows blocks = [&](size_t row, float* to) {
        std::fill_n(to, inputs * PHASES, 0.0f);
        const Place place = place_of(row, square);
        for (int phase = 0; phase < PHASES; ++phase) {
            // The tap that falls on this pixel of the block.
            const int y = BLOCK * (place.y - square.middle) + phase / BLOCK + window.y.begin;
            const int x = BLOCK * (place.x - square.middle) + phase % BLOCK + window.x.begin;
            if (!has_tap(window, y, x)) continue;
            weights(row_of(window, place.output, y, x), pixels.data());
            for (size_t i = 0; i < inputs; ++i)
                to[i * PHASES + static_cast<size_t>(phase)] = pixels[i];
        }
    };
    const Blob divided = emitter.pixel_shuffle(blob, BLOCK, false);
    return convolve(divided, channels,
                    {keeping(square, divided.size.h), keeping(square, divided.size.w)}, blocks,
                    bias, activation);
}

bool Lowering::transpose_by_blocks(const Blob& blob, const Window2D& window, const Dims& dims,
                                   const WeightRows& weights, const std::vector<float>& bias) {
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
    require_weights(int64_t{out.c} * PHASES * blob.size.c * square.side * square.side);
    const WeightRows blocks = [&](size_t row, float* to) {
        const Place place = place_of(row, square);
        const int phase = static_cast<int>(place.output % PHASES);
        // The tap that falls on this pixel of the doubled picture, seen from the one that it takes.
        const int y = BLOCK * (square.middle - place.y) + phase / BLOCK + window.y.begin;
        const int x = BLOCK * (square.middle - place.x) + phase % BLOCK + window.x.begin;
        if (has_tap(window, y, x)) {
            weights(row_of(window, place.output / PHASES, y, x), to);
        } else {
            std::fill_n(to, blob.size.c, 0.0f);
        }
    };
    std::vector<float> repeated;
    for (const float term : bias) repeated.insert(repeated.end(), PHASES, term);
    const Fused fused = fuse(fusable({2, 3, 4, 6, 8}));
    const Blob divided =
        convolve(blob, small(int64_t{out.c} * PHASES, "channels by blocks of pixels"),
                 {keeping(square, blob.size.h), keeping(square, blob.size.w)}, blocks, repeated,
                 fused.activation);
    give(fused.output, dims, emitter.pixel_shuffle(divided, BLOCK, true));
    return true;
}

}  // namespace modelkit::onnx
