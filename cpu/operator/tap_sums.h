// The loop of the plain convolutions.
#pragma once

#include "cpu/mat.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

/// Fills `top`, [num_output][outh][outw], from `padded`. Inputs and outputs are cut into `groups`
/// equal runs of channels; with I[q] the channels of the run that output p belongs to,
///
///     top[p][y][x] = bias[p] + sum of I[q][y * stride_h + ky * dilation_h]
///                                         [x * stride_w + kx * dilation_w] * weight[p][q][ky][kx]
///
/// as one chain of float operations: the bias first, then q, ky, kx ascending. An index that leaves
/// its row or its plane runs on into the next one, which is read as it is; behind the end of the
/// block there are zeros. 0 on success, -100 when there is no memory.
int convolve(const ConvolutionData& data, int groups, const Mat& padded, Mat& top);

}  // namespace TarnoCPU
