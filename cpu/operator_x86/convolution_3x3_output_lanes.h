// 3x3 kernels with four output channels in the lanes: one product a tap, an input channel and a
// pixel, each pixel broadcast.
#pragma once

#include "cpu/operator_x86/convolution_3x3_step.h"

namespace TarnoCPU {
namespace {

/// The four pixels of a row of four output channels:
///
///   top[4 * n + l][y][x] += input[q][y + ky][x + kx] * weights[n][q][ky][kx][l]
///
/// The sums lie with the channels in the lanes and are turned before they are added to the planes.
TN_STEP inline void add_row_of_outputs(const float* input, ptrdiff_t input_row, const __m128* w,
                                       float* top, ptrdiff_t top_channel) {
    __m128 sum[4];
    unrolled<3>([&](auto row) TN_STEP {
        constexpr int ky = row.value;
        unrolled<6>([&](auto column) TN_STEP {
            const __m128 x = _mm_load1_ps(input + column.value);
            unrolled<4>([&](auto pixel) TN_STEP {
                constexpr int j = pixel.value;
                constexpr int kx = column.value - j;
                if constexpr (ky == 0 && kx == 0) {
                    sum[j] = _mm_mul_ps(x, w[0]);
                } else if constexpr (kx >= 0 && kx < 3) {
                    sum[j] = multiply_add(x, w[3 * ky + kx], sum[j]);
                    settle(sum[j]);
                }
            });
        });
        input += input_row;
    });
    _MM_TRANSPOSE4_PS(sum[0], sum[1], sum[2], sum[3]);
    unrolled<4>([&](auto o) TN_STEP {
        _mm_storeu_ps(top, _mm_add_ps(_mm_loadu_ps(top), sum[o.value]));
        top += top_channel;
    });
}

/// Planes in and out, stride 1. The nine weights stay in registers. What bounds the step is the
/// number of vector instructions: for a row of four pixels 36 products, 36 sums, 18 broadcasts and
/// 8 shuffles of the turn. Sharing the broadcasts between two rows of top would need eight
/// registers of sums, and the weights would no longer fit.
template <int Rows, int Columns>
TN_KERNEL void convolve_output_lanes(const Convolution3x3Task& task) {
    const ptrdiff_t input_row = task.input_row;
    const ptrdiff_t top_row = task.top_row;
    const ptrdiff_t top_channel = task.top_channel;
    const int height = task.height;
    const int columns = task.columns;
    const float* input = task.input;
    const float* weights = task.weights;
    for (int q = 0; q < task.groups; ++q, input += task.input_group, weights += 36) {
        __m128 w[9];
        unrolled<9>([&](auto k) TN_STEP {
            w[k.value] = _mm_load_ps(weights + 4 * k.value);
            settle(w[k.value]);
        });
        const float* input_rows = input;
        float* top_rows = task.top;
        for (int y = 0; y < height; y += Rows) {
            for (int x = 0; x < columns; x += Columns) {
                const float* patch = input_rows + x;
                float* top_patch = top_rows + x;
                unrolled<Rows>([&](auto) TN_STEP {
                    unrolled<Columns / 4>([&](auto strip) TN_STEP {
                        constexpr int column = 4 * strip.value;
                        add_row_of_outputs(patch + column, input_row, w, top_patch + column,
                                           top_channel);
                    });
                    patch += input_row;
                    top_patch += top_row;
                    settle(patch);
                    settle(top_patch);
                });
            }
            input_rows += Rows * input_row;
            top_rows += Rows * top_row;
        }
    }
}

/// Blocks of four channels in and out:
///
///   top[n][y][x][l] += sum over c of input[b][y * stride + ky][x * stride + kx][c] *
///                                    weights[n][b][ky][kx][c][l]
///
/// with a sum for each c, so that four chains run side by side. The weights are operands in memory.
/// What bounds the step is the number of vector instructions: 36 products, 36 sums and 36
/// broadcasts, none of which another pixel could share in a step of one pixel. A third of them is
/// no arithmetic.
template <int Stride>
TN_KERNEL void convolve_blocks(const Convolution3x3Task& task) {
    const ptrdiff_t input_row = task.input_row;
    const ptrdiff_t top_row = task.top_row;
    const int height = task.height;
    const int columns = task.columns;
    const float* input = task.input;
    const float* weights = task.weights;
    for (int b = 0; b < task.groups; ++b, input += task.input_group, weights += 144) {
        const float* input_rows = input;
        float* top_rows = task.top;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < columns; ++x) {
                const float* patch = input_rows + 4 * Stride * x;
                float* pixel = top_rows + 4 * x;
                __m128 sum[4];
                sum[0] = _mm_loadu_ps(pixel);
                unrolled<9>([&](auto tap) TN_STEP {
                    constexpr int k = tap.value;
                    const __m128 v = _mm_loadu_ps(patch + k / 3 * input_row + 4 * (k % 3));
                    unrolled<4>([&](auto lane) TN_STEP {
                        constexpr int c = lane.value;
                        const __m128 x_c = _mm_shuffle_ps(v, v, _MM_SHUFFLE(c, c, c, c));
                        const __m128 w = _mm_load_ps(weights + 16 * k + 4 * c);
                        if constexpr (k == 0 && c > 0) {
                            sum[c] = _mm_mul_ps(x_c, w);
                        } else {
                            sum[c] = multiply_add(x_c, w, sum[c]);
                        }
                        settle(sum[c]);
                    });
                });
                const __m128 first = _mm_add_ps(sum[0], sum[1]);
                const __m128 second = _mm_add_ps(sum[2], sum[3]);
                _mm_storeu_ps(pixel, _mm_add_ps(first, second));
            }
            input_rows += Stride * input_row;
            top_rows += top_row;
        }
    }
}

template <int Rows, int Columns>
constexpr Convolution3x3Blocking output_lanes() {
    return {1,       Convolution3x3Border::AllSides,       Convolution3x3Weights::N4CHW4, 4, Rows,
            Columns, &convolve_output_lanes<Rows, Columns>};
}

/// One output block, one input block, one pixel.
template <int Stride>
constexpr Convolution3x3Blocking block_lanes() {
    return {Stride, Convolution3x3Border::AllSides, Convolution3x3Weights::N4C4HW44, 4, 1,
            1,      &convolve_blocks<Stride>};
}

}  // namespace
}  // namespace TarnoCPU
