// The loop of the plain transposed convolutions.
#pragma once

#include "cpu/mat.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

/// Transposed convolution of `bottom` into `top`. Inputs and outputs are cut into `groups` equal
/// runs of channels; with I[q] the channels of the run that output p belongs to, out[p] starts as
/// bias[p], and then
///
///     out[p][y * stride_h + ky * dilation_h][x * stride_w + kx * dilation_w]
///         += I[q][y][x] * weight[p][q][ky][kx]
///
/// with y, x, q, ky, kx ascending, the last one fastest, one float operation after the other.
///
/// `out` has stride_h * h + 2 rows of stride_w * w + 2 columns. The 2 is what a 3x3 kernel with
/// stride 1 and a 4x4 kernel with stride 2 stick out, and it is 2 for every kernel: models are cut
/// to it. A place that leaves its row runs on into the next one; one that leaves the plane is
/// dropped.
///
/// `out` is `top`'s own block when that has the shape and no allocator, else a new one of the plain
/// heap. `top` is `out` less `pad_h` rows and `pad_w` columns at each edge; a negative padding
/// means nothing here. 0 on success. -100 when there is no memory, with `top` as it was, and when
/// the cut leaves nothing.
int convolve_transposed(const ConvolutionData& data, int groups, const Mat& bottom, Mat& top);

}  // namespace TarnoCPU
