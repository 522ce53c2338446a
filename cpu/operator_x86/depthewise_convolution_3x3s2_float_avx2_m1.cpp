#include "cpu/operator_x86/depthewise_convolution_3x3s2_float_avx2_m1.h"

#include <immintrin.h>

#include "cpu/operator/kernel_support.h"

#define TN_TARGET __attribute__((target("avx2")))

namespace TarnoCPU {
namespace {

// Within the 128-bit halves: the columns that `imm` selects, two of a and two of b. All three taps
// of a row leave the eight outputs in the same order, 0 1 4 5 2 3 6 7.
#define TN_GATHER(a, b, imm) _mm256_shuffle_ps(a, b, imm)

// Per row of the kernel four loads, three shuffles, three products and three sums; the sums of a
// step get into order at its end. Nine shuffles, nine products, nine sums and the order on four
// pipes are seven cycles for eight outputs.
TN_TARGET void convolve_rows(DepthwisePlane plane) {
    __m256 weights[9];
    for (int tap = 0; tap < 9; ++tap) weights[tap] = _mm256_broadcast_ss(plane.weights + tap);
    const __m256 bias = _mm256_broadcast_ss(plane.bias);
    for (int64_t y = 0; y < plane.rows; ++y) {
        const float* in = plane.in + 2 * y * plane.in_row;
        float* const out = plane.out + y * plane.row;
        for (int64_t x = 0; x < plane.row; x += 8, in += 16) {
            __m256 sum;
#pragma GCC unroll 3
            for (int ky = 0; ky < 3; ++ky) {
                const float* const row = in + ky * plane.in_row;
                const __m256 a = _mm256_loadu_ps(row);
                const __m256 b = _mm256_loadu_ps(row + 8);
                const __m256 even = TN_GATHER(a, b, _MM_SHUFFLE(2, 0, 2, 0));
                const __m256 odd = TN_GATHER(a, b, _MM_SHUFFLE(3, 1, 3, 1));
                // Columns 2 to 16: the second load starts one early and ends with the last tap.
                const __m256 next = TN_GATHER(_mm256_loadu_ps(row + 2), _mm256_loadu_ps(row + 9),
                                              _MM_SHUFFLE(3, 1, 2, 0));
                const __m256 first = _mm256_mul_ps(even, weights[3 * ky]);
                sum = ky == 0 ? first : _mm256_add_ps(sum, first);
                sum = _mm256_add_ps(sum, _mm256_mul_ps(odd, weights[3 * ky + 1]));
                sum = _mm256_add_ps(sum, _mm256_mul_ps(next, weights[3 * ky + 2]));
            }
            const __m256d ordered =
                _mm256_permute4x64_pd(_mm256_castps_pd(sum), _MM_SHUFFLE(3, 1, 2, 0));
            _mm256_storeu_ps(out + x, _mm256_add_ps(_mm256_castpd_ps(ordered), bias));
        }
    }
}

#undef TN_GATHER

}  // namespace

TN_DEFINE_OPERATOR_CREATOR(Depthewise_Convolution_3x3s2_Float_AVX2_M1)

int Depthewise_Convolution_3x3s2_Float_AVX2_M1::forward(const Mat& bottom, Mat& top,
                                                        const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    return convolve(bottom, top, opt, {1, 2, 1, 8, 0, 0, &convolve_rows});
}

}  // namespace TarnoCPU
