// 3x3 kernels with four input channels in the lanes.
//
//   top[p][y][x] += sum over c % 4 of (sum over ky and kx of
//                                      input[c / 4][y * stride + ky][x * stride + kx][c % 4] *
//                                      weights[p][c / 4][ky][kx][c % 4])
//
// Nine products a pixel, one for each tap, then the lanes are added across. The input is a scratch
// in `C4HW4`, the weights lie in the form NC4HW4.
#pragma once

#include "cpu/operator_x86/convolution_3x3_step.h"

namespace TarnoCPU {
namespace {

/// The sums of the lanes of a, of b, of c, of d.
TN_STEP inline __m128 add_across(__m128 a, __m128 b, __m128 c, __m128 d) {
    const __m128 ab = _mm_add_ps(_mm_unpacklo_ps(a, b), _mm_unpackhi_ps(a, b));
    const __m128 cd = _mm_add_ps(_mm_unpacklo_ps(c, d), _mm_unpackhi_ps(c, d));
    return _mm_add_ps(_mm_movelh_ps(ab, cd), _mm_movehl_ps(cd, ab));
}

TN_STEP inline float add_across(__m128 a) {
    const __m128 pair = _mm_add_ps(a, _mm_movehl_ps(a, a));
    return _mm_cvtss_f32(_mm_add_ss(pair, _mm_shuffle_ps(pair, pair, 1)));
}

/// Adds to the four pixels of a row.
TN_STEP inline void add_to_row(float* top, __m128 added) {
    _mm_storeu_ps(top, _mm_add_ps(_mm_loadu_ps(top), added));
}

/// Adds to two pixels of a row and to the two below.
TN_STEP inline void add_to_square(float* top, ptrdiff_t top_row, __m128 added) {
    const __m128 first = _mm_castsi128_ps(_mm_loadu_si64(top));
    const __m128 second = _mm_castsi128_ps(_mm_loadu_si64(top + top_row));
    const __m128 sum = _mm_add_ps(_mm_movelh_ps(first, second), added);
    _mm_storeu_si64(top, _mm_castps_si128(sum));
    _mm_storeu_si64(top + top_row, _mm_castps_si128(_mm_movehl_ps(sum, sum)));
}

/// Four pixels of one output channel: a row of four (Rows 1) or a square (Rows 2).
template <int Stride, int Rows>
TN_STEP inline void add_four_pixels(const float* input, ptrdiff_t input_row, const __m128* w,
                                    float* top, ptrdiff_t top_row) {
    constexpr int columns = 4 / Rows;
    __m128 sum[4];
    unrolled<(Rows - 1) * Stride + 3>([&](auto row) TN_STEP {
        unrolled<(columns - 1) * Stride + 3>([&](auto column) TN_STEP {
            const __m128 x = _mm_loadu_ps(input + 4 * column.value);
            unrolled<4>([&](auto pixel) TN_STEP {
                constexpr int i = pixel.value;
                constexpr int ky = row.value - i / columns * Stride;
                constexpr int kx = column.value - i % columns * Stride;
                if constexpr (ky == 0 && kx == 0) {
                    sum[i] = _mm_mul_ps(x, w[0]);
                } else if constexpr (ky >= 0 && ky < 3 && kx >= 0 && kx < 3) {
                    sum[i] = multiply_add(x, w[3 * ky + kx], sum[i]);
                    settle(sum[i]);
                }
            });
        });
        input += input_row;
    });
    const __m128 added = add_across(sum[0], sum[1], sum[2], sum[3]);
    if constexpr (Rows == 1) {
        add_to_row(top, added);
    } else {
        add_to_square(top, top_row, added);
    }
}

/// One pixel of one output channel, with a sum for each kernel row: one chain of nine sums for all
/// of them would take longer than the instructions do.
TN_STEP inline void add_pixel(const float* input, ptrdiff_t input_row, const __m128* w,
                              float* top) {
    __m128 sum[3];
    unrolled<9>([&](auto tap) TN_STEP {
        constexpr int ky = tap.value / 3;
        constexpr int kx = tap.value % 3;
        const __m128 x = _mm_loadu_ps(input + ky * input_row + 4 * kx);
        if constexpr (kx == 0) {
            sum[ky] = _mm_mul_ps(x, w[3 * ky]);
        } else {
            sum[ky] = multiply_add(x, w[3 * ky + kx], sum[ky]);
            settle(sum[ky]);
        }
    });
    *top += add_across(_mm_add_ps(_mm_add_ps(sum[0], sum[1]), sum[2]));
}

TN_STEP inline void take_weights(const float* weights, __m128* w) {
    settle(weights);
    unrolled<9>([&](auto k) TN_STEP {
        w[k.value] = _mm_load_ps(weights + 4 * k.value);
        settle(w[k.value]);
    });
}

/// With one output channel the nine weights stay in registers; with several, each channel takes its
/// nine once a step. Four pixels a time are bound by products and sums: 36 of each, beside 18 loads
/// (stride 1, a row), 16 (a square) or 27 (stride 2), 6 shuffles and 4 sums more. One pixel a time
/// is bound by the number of vector instructions: 9 products, 8 sums, and 2 shuffles and 3 sums
/// that four pixels would share.
template <int Stride, int Outputs, int Rows, int Columns>
TN_KERNEL void convolve_input_lanes(const Convolution3x3Task& task) {
    constexpr int patch_rows = Columns == 2 ? 2 : 1;
    const ptrdiff_t input_row = task.input_row;
    const ptrdiff_t top_row = task.top_row;
    const ptrdiff_t top_channel = task.top_channel;
    const ptrdiff_t weights_output = task.weights_output;
    const int height = task.height;
    const int columns = task.columns;
    const float* input = task.input;
    const float* weights = task.weights;
    for (int b = 0; b < task.groups; ++b, input += task.input_group, weights += 36) {
        __m128 w_first[9];
        if constexpr (Outputs == 1) take_weights(weights, w_first);
        const float* input_rows = input;
        float* top_rows = task.top;
        for (int y = 0; y < height; y += Rows) {
            for (int x = 0; x < columns; x += Columns) {
                unrolled<Outputs>([&](auto o) TN_STEP {
                    __m128 w[9];
                    if constexpr (Outputs == 1) {
                        unrolled<9>([&](auto k) TN_STEP { w[k.value] = w_first[k.value]; });
                    } else {
                        take_weights(weights + o.value * weights_output, w);
                    }
                    const float* patch = input_rows + 4 * Stride * x;
                    float* top_patch = top_rows + o.value * top_channel + x;
                    unrolled<Rows / patch_rows>([&](auto) TN_STEP {
                        if constexpr (Columns == 1) {
                            add_pixel(patch, input_row, w, top_patch);
                        } else {
                            add_four_pixels<Stride, patch_rows>(patch, input_row, w, top_patch,
                                                                top_row);
                        }
                        patch += Stride * patch_rows * input_row;
                        top_patch += patch_rows * top_row;
                        settle(patch);
                        settle(top_patch);
                    });
                });
            }
            input_rows += Stride * Rows * input_row;
            top_rows += Rows * top_row;
        }
    }
}

/// Four output channels, one pixel, stride 1: each input vector serves four channels. Of the 36
/// weight vectors those that fit stay in registers and the rest are operands in memory, gathered on
/// the stack so that one register addresses them all. Loads bound the step, about as many as there
/// are products, together with 9 shuffles and 7 sums to add the lanes across and to four planes.
template <int Stride>
TN_KERNEL void convolve_input_lanes_of_four_outputs(const Convolution3x3Task& task) {
    const ptrdiff_t input_row = task.input_row;
    const ptrdiff_t top_row = task.top_row;
    const ptrdiff_t top_channel = task.top_channel;
    const int height = task.height;
    const int columns = task.columns;
    const float* input = task.input;
    const float* weights = task.weights;
    for (int b = 0; b < task.groups; ++b, input += task.input_group, weights += 36) {
        __m128 w[4][9];
        unrolled<4>([&](auto o) TN_STEP {
            take_weights(weights + o.value * task.weights_output, w[o.value]);
        });
        const float* input_rows = input;
        float* top_rows = task.top;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < columns; ++x) {
                const float* patch = input_rows + 4 * Stride * x;
                __m128 sum[4];
                unrolled<9>([&](auto tap) TN_STEP {
                    constexpr int k = tap.value;
                    const __m128 v = _mm_loadu_ps(patch + k / 3 * input_row + 4 * (k % 3));
                    unrolled<4>([&](auto output) TN_STEP {
                        constexpr int o = output.value;
                        if constexpr (k == 0) {
                            sum[o] = _mm_mul_ps(v, w[o][0]);
                        } else {
                            sum[o] = multiply_add(v, w[o][k], sum[o]);
                        }
                        settle(sum[o]);
                    });
                });
                const __m128 added = add_across(sum[0], sum[1], sum[2], sum[3]);
                float* pixel = top_rows + x;
                pixel[0] += _mm_cvtss_f32(added);
                pixel[top_channel] += _mm_cvtss_f32(_mm_shuffle_ps(added, added, 1));
                pixel[2 * top_channel] += _mm_cvtss_f32(_mm_movehl_ps(added, added));
                pixel[3 * top_channel] += _mm_cvtss_f32(_mm_shuffle_ps(added, added, 3));
            }
            input_rows += Stride * input_row;
            top_rows += top_row;
        }
    }
}

template <int Stride, int Outputs, int Rows, int Columns>
constexpr Convolution3x3Blocking input_lanes() {
    Convolution3x3Blocking blocking = {Stride,
                                       Convolution3x3Border::AllSides,
                                       Convolution3x3Weights::NC4HW4,
                                       Outputs,
                                       Rows,
                                       Columns,
                                       nullptr};
    if constexpr (Outputs == 4 && Columns == 1) {
        blocking.kernel = &convolve_input_lanes_of_four_outputs<Stride>;
    } else {
        blocking.kernel = &convolve_input_lanes<Stride, Outputs, Rows, Columns>;
    }
    return blocking;
}

}  // namespace
}  // namespace TarnoCPU
