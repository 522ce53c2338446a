// Depth to space and back: the one computation behind the two operator classes.
#pragma once

#include "cpu/mat.h"
#include "cpu/option.h"

namespace TarnoCPU {

/// With `scale` of at least 1 and r = (int)scale, depth to space: top[c / (r * r)][h * r][w * r],
/// top[o][y * r + ry][x * r + rx] = bottom[(o * r + ry) * r + rx][y][x].
/// Below 1, with r = (int)(1 / scale), space to depth: top[c * r * r][h / r][w / r],
/// top[(q * r + ry) * r + rx][y][x] = bottom[q][y * r + ry][x * r + rx].
///
/// Planes of floats; top takes layout and `elem_size` of bottom and comes from
/// `opt.blob_allocator`. 0, or -100 when r does not divide the sizes or there is no memory.
int pixel_shuffle(const Mat& bottom, Mat& top, float scale, const Option& opt);

}  // namespace TarnoCPU
