// 3x3 depthwise tiles at stride 2: the three taps of a kernel row lie in the lanes of a vector.
#pragma once

#include <emmintrin.h>

#include "cpu/operator_x86/depthwise_convolution_3x3.h"

namespace TarnoCPU {

/// sums[j] added across to lane j. The fourth lane holds the pixel behind the taps, which does not
/// count: it may be anything.
inline __m128 add_three_lanes(const __m128* sums) {
    const __m128 a = _mm_unpacklo_ps(sums[0], sums[1]);
    const __m128 b = _mm_unpacklo_ps(sums[2], sums[3]);
    const __m128 c = _mm_unpackhi_ps(sums[0], sums[1]);
    const __m128 d = _mm_unpackhi_ps(sums[2], sums[3]);
    const __m128 first_two = _mm_add_ps(_mm_movelh_ps(a, b), _mm_movehl_ps(b, a));
    return _mm_add_ps(first_two, _mm_movelh_ps(c, d));
}

inline __m128 add_three_lanes(__m128 sums) {
    const __m128 second = _mm_shuffle_ps(sums, sums, _MM_SHUFFLE(1, 1, 1, 1));
    return _mm_add_ss(_mm_add_ss(sums, second), _mm_movehl_ps(sums, sums));
}

/// `Rows` x `Columns` outputs, input row by input row: a load of four pixels, three of them taps,
/// is multiplied with one or two rows of the kernel.
template <int Rows, int Columns>
inline void sweep_lanes(const float* in, int64_t in_row, const __m128* weights, __m128 bias,
                        float* out, int64_t out_row) {
    __m128 sums[Rows][Columns];
#pragma GCC unroll 16
    for (int r = 0; r < 2 * Rows + 1; ++r) {
#pragma GCC unroll 4
        for (int j = 0; j < Columns; ++j) {
            const __m128 v = _mm_loadu_ps(in + 2 * j);
#pragma GCC unroll 4
            for (int i = 0; i < Rows; ++i) {
                const int ky = r - 2 * i;
                if (ky < 0 || ky > 2) continue;
                const __m128 product = _mm_mul_ps(v, weights[ky]);
                sums[i][j] = ky == 0 ? product : _mm_add_ps(sums[i][j], product);
            }
        }
        in += in_row;
        if (r >= 2 && r % 2 == 0) {
            const __m128* const row = sums[r / 2 - 1];
            if (Columns == 1) {
                _mm_store_ss(out, _mm_add_ss(add_three_lanes(row[0]), bias));
            } else {
                _mm_storeu_ps(out, _mm_add_ps(add_three_lanes(row), bias));
            }
            out += out_row;
        }
    }
}

template <int Rows, int Columns>
void sweep_lanes_plane(DepthwisePlane plane) {
    const float* const w = plane.weights;
    const __m128 weights[3] = {_mm_setr_ps(w[0], w[1], w[2], 0.0f),
                               _mm_setr_ps(w[3], w[4], w[5], 0.0f),
                               _mm_setr_ps(w[6], w[7], w[8], 0.0f)};
    const __m128 bias = _mm_set1_ps(plane.bias[0]);
    for (int64_t y = 0; y < plane.rows; y += Rows) {
        const float* const in = plane.in + 2 * y * plane.in_row;
        float* const out = plane.out + y * plane.row;
        for (int64_t x = 0; x < plane.row; x += Columns) {
            sweep_lanes<Rows, Columns>(in + 2 * x, plane.in_row, weights, bias, out + x, plane.row);
        }
    }
}

/// Steps of `Rows` x `Columns`, with 1 or 4 columns.
template <int Rows, int Columns>
constexpr DepthwiseBlocking lanes_at_stride_2() {
    return {1, 2, Rows, Columns, 0, 1, &sweep_lanes_plane<Rows, Columns>};
}

}  // namespace TarnoCPU
