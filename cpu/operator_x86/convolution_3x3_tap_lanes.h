// 3x3 kernels with the three taps of a kernel row in the lanes.
//
//   top[p][y][x] += sum over kx of (sum over ky of
//                                   input[q][y * stride + ky][x * stride + kx] *
//                                   weights[p][q][ky][kx])
//
// Three products a pixel, one for each ky, then the lanes are added across. A product has a fourth
// lane that belongs to no tap. It is left out of the sum, not multiplied by 0: it may hold an
// infinity of the pixel beside.
#pragma once

#include "cpu/operator_x86/convolution_3x3_step.h"

namespace TarnoCPU {
namespace {

/// The sums of four pixels. The even ones have their taps in the lanes 0 to 2, the odd ones in 1 to
/// 3.
TN_STEP inline __m128 add_taps(const __m128* pixel) {
    const __m128 lower_01 = _mm_shuffle_ps(pixel[0], pixel[1], _MM_SHUFFLE(2, 1, 1, 0));
    const __m128 lower_23 = _mm_shuffle_ps(pixel[2], pixel[3], _MM_SHUFFLE(2, 1, 1, 0));
    const __m128 last_01 = _mm_shuffle_ps(pixel[0], pixel[1], _MM_SHUFFLE(3, 3, 2, 2));
    const __m128 last_23 = _mm_shuffle_ps(pixel[2], pixel[3], _MM_SHUFFLE(3, 3, 2, 2));
    const __m128 first = _mm_shuffle_ps(lower_01, lower_23, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 second = _mm_shuffle_ps(lower_01, lower_23, _MM_SHUFFLE(3, 1, 3, 1));
    const __m128 last = _mm_shuffle_ps(last_01, last_23, _MM_SHUFFLE(2, 0, 2, 0));
    return _mm_add_ps(_mm_add_ps(first, second), last);
}

/// Rows x 4 pixels. The odd pixels are loaded one float early, with the weights one lane late: the
/// last load ends with the last tap of the fourth pixel, and nothing behind it is read.
template <int Stride, int Rows>
TN_STEP inline void add_strip_by_taps(const float* input, ptrdiff_t input_row, const __m128* w_even,
                                      const __m128* w_odd, float* top, ptrdiff_t top_row) {
    __m128 sum[Rows][4];
    unrolled<(Rows - 1) * Stride + 3>([&](auto row) TN_STEP {
        constexpr int r = row.value;
        unrolled<4>([&](auto pixel) TN_STEP {
            constexpr int j = pixel.value;
            const __m128 x = _mm_loadu_ps(input + Stride * j - j % 2);
            unrolled<3>([&](auto step) TN_STEP {
                constexpr int ky = 2 - step.value;
                constexpr int i = (r - ky) / Stride;
                if constexpr (r >= ky && i * Stride == r - ky && i < Rows) {
                    const __m128 w = j % 2 == 0 ? w_even[ky] : w_odd[ky];
                    if constexpr (ky == 0) {
                        sum[i][j] = _mm_mul_ps(x, w);
                    } else {
                        sum[i][j] = multiply_add(x, w, sum[i][j]);
                    }
                    settle(sum[i][j]);
                }
            });
        });
        if constexpr (r >= 2 && (r - 2) % Stride == 0) {
            const __m128 added = add_taps(sum[(r - 2) / Stride]);
            _mm_storeu_ps(top, _mm_add_ps(_mm_loadu_ps(top), added));
            top += top_row;
        }
        input += input_row;
    });
}

/// The six weight vectors stay in registers. What bounds the step is the number of vector
/// instructions: 12 products, 8 sums over ky, and 7 shuffles and 3 sums to add the taps across and
/// to top, for 36 useful products of single floats, which would fill 9.
template <int Stride, int Rows>
TN_KERNEL void convolve_tap_lanes(const Convolution3x3Task& task) {
    const ptrdiff_t input_row = task.input_row;
    const ptrdiff_t top_row = task.top_row;
    const int height = task.height;
    const int columns = task.columns;
    const float* input = task.input;
    const float* weights = task.weights;
    for (int q = 0; q < task.groups; ++q, input += task.input_group, weights += 9) {
        __m128 w_even[3];
        __m128 w_odd[3];
        unrolled<3>([&](auto ky) TN_STEP {
            const float* w = weights + 3 * ky.value;
            w_even[ky.value] = _mm_setr_ps(w[0], w[1], w[2], 0.0f);
            w_odd[ky.value] = _mm_setr_ps(0.0f, w[0], w[1], w[2]);
        });
        const float* input_rows = input;
        float* top_rows = task.top;
        for (int y = 0; y < height; y += Rows) {
            for (int x = 0; x < columns; x += 4) {
                add_strip_by_taps<Stride, Rows>(input_rows + Stride * x, input_row, w_even, w_odd,
                                                top_rows + x, top_row);
            }
            input_rows += Stride * Rows * input_row;
            top_rows += Rows * top_row;
        }
    }
}

template <int Stride, int Rows>
constexpr Convolution3x3Blocking tap_lanes(Convolution3x3Border border) {
    return {Stride, border, Convolution3x3Weights::AsStored,  1,
            Rows,   4,      &convolve_tap_lanes<Stride, Rows>};
}

}  // namespace
}  // namespace TarnoCPU
