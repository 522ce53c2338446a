// Packed forms of float weights, made once by `load`, and the way from fixed point to float.
//
// The helpers take flat `Mat`s (one row) with `dst` already allocated, and write only. Source
// elements stand in the order [n][c][y][x]: n output channels, c input channels, an h x w kernel.
// Where a row of the destination has four channels side by side, the count in question must be
// divisible by 4. A `Mat` that is not flat or not of floats raises an assertion, under the names that
// the packed forms have. Elements whose place lies behind the end of `dst` are dropped, elements behind
// the end of `src` read as 0.
#pragma once

#include "../platform/export.h"
#include "mat.h"

namespace TarnoCPU {

/// [n][c / 4][y][x][c % 4]; c divisible by 4.
TN_API void transform_nchw_to_nc4hw4(const Mat& src, Mat& dst, int n, int c, int h, int w);
/// [n / 4][c][y][x][n % 4]; n divisible by 4.
TN_API void transform_nchw_to_n4chw4(const Mat& src, Mat& dst, int n, int c, int h, int w);
/// Depthwise kernels, [n][y][x] to [n / 4][y][x][n % 4]; n divisible by 4.
TN_API void transform_nhw_to_n4hw4(const Mat& src, Mat& dst, int n, int h, int w);

/// Fixed point to float: dst = src * 1.0f / (1 << (fraction_bits & 31)), in `CHW`. `dst` keeps its
/// block when it has the right shape and no allocator; otherwise it is made anew from the plain
/// heap. The assertion `creat mat failed!` when there is no memory.
TN_API void mat_int16_to_float_chw(Mat& src, Mat& dst, int fraction_bits);

}  // namespace TarnoCPU
