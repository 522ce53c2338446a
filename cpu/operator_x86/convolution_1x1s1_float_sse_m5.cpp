#include "cpu/operator_x86/convolution_1x1s1_float_sse_m5.h"

#include <emmintrin.h>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {
namespace {

// (a0 + a2, b0 + b2, a1 + a3, b1 + b3)
__m128 half_sums(__m128 a, __m128 b) {
    return _mm_add_ps(_mm_unpacklo_ps(a, b), _mm_unpackhi_ps(a, b));
}

// The four products cost less than the way across the lanes: six shuffles and three sums, and one
// shuffle more to put the halves of two rows of top into one vector. Bound by its 29 instructions.
void add_products_of_2x2(DotProduct product) {
    const __m128 w = _mm_loadu_ps(product.weights);
    const int64_t row = product.columns;
    for (int64_t y = 0; y < product.rows; y += 2) {
        const float* upper = product.in + 4 * y * row;
        const float* lower = upper + 4 * row;
        float* const out = product.out + y * row;
        for (int64_t x = 0; x < row; x += 2, upper += 8, lower += 8) {
            const __m128 first = half_sums(_mm_mul_ps(_mm_loadu_ps(upper), w),
                                           _mm_mul_ps(_mm_loadu_ps(upper + 4), w));
            const __m128 second = half_sums(_mm_mul_ps(_mm_loadu_ps(lower), w),
                                            _mm_mul_ps(_mm_loadu_ps(lower + 4), w));
            const __m128 sums =
                _mm_add_ps(_mm_movelh_ps(first, second), _mm_movehl_ps(second, first));
            __m64* const upper_out = reinterpret_cast<__m64*>(out + x);
            __m64* const lower_out = reinterpret_cast<__m64*>(out + x + row);
            __m128 old = _mm_loadl_pi(_mm_setzero_ps(), upper_out);
            old = _mm_loadh_pi(old, lower_out);
            const __m128 result = _mm_add_ps(old, sums);
            _mm_storel_pi(upper_out, result);
            _mm_storeh_pi(lower_out, result);
        }
    }
}

}  // namespace

TN_DEFINE_OPERATOR_CREATOR(Convolution_1x1s1_Float_SSE_M5)

bool Convolution_1x1s1_Float_SSE_M5::check_forward(const TensorShape& shape) {
    return shape.w % 2 == 0 && shape.h % 2 == 0 && DotConvolution1x1::check_forward(shape);
}

int Convolution_1x1s1_Float_SSE_M5::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    return convolve(bottom, top, opt, &add_products_of_2x2);
}

}  // namespace TarnoCPU
