// The packed weight form with four input and four output channels side by side.
#pragma once

#include "../platform/export.h"
#include "mat.h"

namespace TarnoCPU {

/// [n][c][y][x] to [n / 4][c / 4][y][x][c % 4][n % 4]; n and c divisible by 4. Flat `Mat`s, `dst`
/// already allocated; see transform.h.
TN_API void transform_nchw_to_n4c4hw44(const Mat& src, Mat& dst, int n, int c, int h, int w);

}  // namespace TarnoCPU
