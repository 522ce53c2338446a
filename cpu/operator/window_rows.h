// Walking a row of outputs that each look at a window of the input.
//
// The order of operations on one output is fixed, the order among outputs is free. So a row is
// computed in tiles of neighbouring outputs whose accumulators stay in registers; the compiler puts
// them side by side into vectors, and each output still goes through its own chain.
#pragma once

#include <cstdint>

namespace TarnoCPU {

/// A `Tile` computes neighbouring outputs from the place of the first one's window:
///
///     template <int Columns, int Stride>
///     void run(const float* window, int64_t stride, float* out) const;
///
/// where `Stride` is the distance of the windows when it is known, else 0. The first output goes to
/// `out`, the next ones `out_step` elements further on each.
template <int Stride, typename Tile>
inline void walk_window_row(const Tile& tile, const float* window, int64_t stride, int64_t columns,
                            float* out, int64_t out_step) {
    constexpr int wide = 16, narrow = 4;
    const int64_t step = Stride != 0 ? Stride : stride;
    int64_t x = 0;
    if (columns >= wide) {
        for (; x <= columns - wide; x += wide) {
            tile.template run<wide, Stride>(window + x * step, step, out + x * out_step);
        }
        // The rest once more as a whole tile that ends with the row: some outputs are computed
        // twice, with the same result.
        if (x < columns) {
            x = columns - wide;
            tile.template run<wide, Stride>(window + x * step, step, out + x * out_step);
        }
        return;
    }
    for (; x <= columns - narrow; x += narrow) {
        tile.template run<narrow, Stride>(window + x * step, step, out + x * out_step);
    }
    for (; x < columns; ++x) {
        tile.template run<1, Stride>(window + x * step, step, out + x * out_step);
    }
}

/// One row of `columns` outputs; the windows lie `stride` elements apart.
template <typename Tile>
inline void compute_window_row(const Tile& tile, const float* window, int64_t stride,
                               int64_t columns, float* out) {
    if (stride == 1) {
        walk_window_row<1>(tile, window, stride, columns, out, 1);
    } else if (stride == 2) {
        walk_window_row<2>(tile, window, stride, columns, out, 1);
    } else {
        walk_window_row<0>(tile, window, stride, columns, out, 1);
    }
}

}  // namespace TarnoCPU
