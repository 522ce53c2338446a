// Bilinear enlargement by two on four channels side by side.
#pragma once

#include <cstdint>

namespace TarnoCPU {

/// One block of four channels: bottom[m][n][4] to top[2 * m][2 * n][4], m, n of at least 1, without
/// gaps. The corners of top are those of bottom. Columns 2i + 1 and 2i + 2 of top lie t1 and t2 of
/// the way from column i to column i + 1 of bottom,
///
///   t1 = frac(px), t2 = t1 + dx, px from x0 in steps of 2 * dx,
///   with `align_corners`  dx = x0 = (n - 1) / (2n - 1), else dx = 0.5 and x0 = 0.25,
///
/// and rows likewise with u1, u2. Every output is (1 - t) * l + t * r of l and r, which are
/// (1 - u) * upper + u * lower, each a product, a product and a sum in float. px is a running sum,
/// so every channel gets the numbers that the same chain gives one channel at a time.
void upsampling_bilinear_x2(const float* bottom, int64_t m, int64_t n, bool align_corners,
                            float* top);

}  // namespace TarnoCPU
