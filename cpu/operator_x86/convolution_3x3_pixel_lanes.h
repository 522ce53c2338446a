// 3x3 kernels with four neighbouring pixels of one output channel in the lanes.
//
//   top[p][y][x..x+3] += input[q][y * stride + ky][(x..x+3) * stride + kx] * weights[p][q][ky][kx]
//
// in the order ky, kx: one product a tap, each weight broadcast.
#pragma once

#include "cpu/operator_x86/convolution_3x3_step.h"

namespace TarnoCPU {
namespace {

/// Rows x 4 pixels at stride 1. Input rows come one by one: a row adds to the sums of up to three
/// rows of top, the first of which is then complete.
template <int Rows>
TN_STEP inline void add_strip(const float* input, ptrdiff_t input_row, const __m128* w, float* top,
                              ptrdiff_t top_row) {
    __m128 sum[Rows];
    const float* next_top = top;
    unrolled<Rows + 2>([&](auto row) TN_STEP {
        constexpr int r = row.value;
        if constexpr (r < Rows) {
            sum[r] = _mm_loadu_ps(next_top);
            next_top += top_row;
        }
        unrolled<3>([&](auto column) TN_STEP {
            constexpr int kx = column.value;
            const __m128 x = _mm_loadu_ps(input + kx);
            unrolled<3>([&](auto step) TN_STEP {
                constexpr int ky = 2 - step.value;
                constexpr int i = r - ky;
                if constexpr (i >= 0 && i < Rows) {
                    sum[i] = multiply_add(x, w[3 * ky + kx], sum[i]);
                    settle(sum[i]);
                }
            });
        });
        if constexpr (r >= 2) {
            _mm_storeu_ps(top, sum[r - 2]);
            top += top_row;
        }
        input += input_row;
    });
}

/// Stride 1.
///
/// With one output channel the nine weights stay in registers, and products and sums bound the
/// step: 9 of each for four pixels, two of each a cycle, beside 4.5 loads (4 rows) or 3.75 (8
/// rows). With several output channels their weights lie broadcast on the stack, and each channel
/// takes its nine once a step: 36 loads for 144 products, which still leaves products and sums the
/// bound.
template <int Outputs, int Rows, int Columns>
TN_KERNEL void convolve_pixel_lanes(const Convolution3x3Task& task) {
    const ptrdiff_t input_row = task.input_row;
    const ptrdiff_t top_row = task.top_row;
    const ptrdiff_t top_channel = task.top_channel;
    const int height = task.height;
    const int columns = task.columns;
    const float* input = task.input;
    const float* weights = task.weights;
    for (int q = 0; q < task.groups; ++q, input += task.input_group, weights += 9) {
        __m128 broadcast[Outputs][9];
        unrolled<Outputs>([&](auto o) TN_STEP {
            unrolled<9>([&](auto k) TN_STEP {
                broadcast[o.value][k.value] =
                    _mm_set1_ps(weights[o.value * task.weights_output + k.value]);
            });
        });
        const float* input_rows = input;
        float* top_rows = task.top;
        for (int y = 0; y < height; y += Rows) {
            for (int x = 0; x < columns; x += Columns) {
                unrolled<Outputs>([&](auto o) TN_STEP {
                    __m128 w[9];
                    unrolled<9>([&](auto k) TN_STEP {
                        w[k.value] = broadcast[o.value][k.value];
                        if constexpr (Outputs > 1) settle(w[k.value]);
                    });
                    unrolled<Columns / 4>([&](auto strip) TN_STEP {
                        const int column = x + 4 * strip.value;
                        add_strip<Rows>(input_rows + column, input_row, w,
                                        top_rows + o.value * top_channel + column, top_row);
                    });
                });
            }
            input_rows += Rows * input_row;
            top_rows += Rows * top_row;
        }
    }
}

/// Rows x 4 pixels at stride 2. Of nine input pixels of a row, the four of each kx are picked out
/// of three loads, the last of which ends with the ninth: nothing behind it is read.
template <int Rows>
TN_STEP inline void add_strip_of_even(const float* input, ptrdiff_t input_row, const __m128* w,
                                      float* top, ptrdiff_t top_row) {
    __m128 sum[Rows];
    const float* next_top = top;
    unrolled<2 * Rows + 1>([&](auto row) TN_STEP {
        constexpr int r = row.value;
        if constexpr (r % 2 == 0 && r / 2 < Rows) {
            sum[r / 2] = _mm_loadu_ps(next_top);
            next_top += top_row;
        }
        __m128 from_0 = _mm_loadu_ps(input);
        __m128 from_4 = _mm_loadu_ps(input + 4);
        const __m128 from_5 = _mm_loadu_ps(input + 5);
        settle(from_0);
        settle(from_4);
        __m128 x[3];
        x[0] = _mm_shuffle_ps(from_0, from_4, _MM_SHUFFLE(2, 0, 2, 0));  // 0 2 4 6
        x[1] = _mm_shuffle_ps(from_0, from_4, _MM_SHUFFLE(3, 1, 3, 1));  // 1 3 5 7
        x[2] = _mm_shuffle_ps(x[0], from_5, _MM_SHUFFLE(3, 1, 2, 1));    // 2 4 6 8
        unrolled<3>([&](auto column) TN_STEP {
            constexpr int kx = column.value;
            unrolled<3>([&](auto step) TN_STEP {
                constexpr int ky = 2 - step.value;
                constexpr int i = (r - ky) / 2;
                if constexpr (r >= ky && 2 * i == r - ky && i < Rows) {
                    sum[i] = multiply_add(x[kx], w[3 * ky + kx], sum[i]);
                    settle(sum[i]);
                }
            });
        });
        if constexpr (r >= 2 && r % 2 == 0) {
            _mm_storeu_ps(top, sum[r / 2 - 1]);
            top += top_row;
        }
        input += input_row;
    });
}

/// Stride 2. With one row of top the loads bound the step: 10 of them, most across a boundary of
/// 16, and 9 shuffles for 9 fused products. Two rows share the input row between them: 17 loads and
/// 15 shuffles for 18 products.
template <int Rows>
TN_KERNEL void convolve_even_pixel_lanes(const Convolution3x3Task& task) {
    const ptrdiff_t input_row = task.input_row;
    const ptrdiff_t top_row = task.top_row;
    const int height = task.height;
    const int columns = task.columns;
    const float* input = task.input;
    const float* weights = task.weights;
    for (int q = 0; q < task.groups; ++q, input += task.input_group, weights += 9) {
        __m128 w[9];
        unrolled<9>([&](auto k) TN_STEP { w[k.value] = _mm_set1_ps(weights[k.value]); });
        const float* input_rows = input;
        float* top_rows = task.top;
        for (int y = 0; y < height; y += Rows) {
            for (int x = 0; x < columns; x += 4) {
                add_strip_of_even<Rows>(input_rows + 2 * x, input_row, w, top_rows + x, top_row);
            }
            input_rows += 2 * Rows * input_row;
            top_rows += Rows * top_row;
        }
    }
}

template <int Outputs, int Rows, int Columns>
constexpr Convolution3x3Blocking pixel_lanes() {
    return {1,
            Convolution3x3Border::AllSides,
            Convolution3x3Weights::AsStored,
            Outputs,
            Rows,
            Columns,
            &convolve_pixel_lanes<Outputs, Rows, Columns>};
}

template <int Rows>
constexpr Convolution3x3Blocking even_pixel_lanes() {
    return {2, Convolution3x3Border::AllSides,  Convolution3x3Weights::AsStored, 1, Rows,
            4, &convolve_even_pixel_lanes<Rows>};
}

}  // namespace
}  // namespace TarnoCPU
