#include "cpu/operator_x86/fullconnection_float_sse_m1.h"

#include <emmintrin.h>

#include <algorithm>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(FullConnection_Float_SSE_M1)

namespace {

// Four dot products over `steps` vectors of x: each lane adds up every fourth product, then the
// lanes are added in the order 1, 0, 2, 3.
__m128 dot_4(const float* const rows[4], const float* x, int64_t steps) {
    __m128 sum0 = _mm_setzero_ps(), sum1 = sum0, sum2 = sum0, sum3 = sum0;
    const float* row0 = rows[0];
    const float* row1 = rows[1];
    const float* row2 = rows[2];
    const float* row3 = rows[3];
    for (int64_t i = 0; i < 4 * steps; i += 4) {
        const __m128 input = _mm_loadu_ps(x + i);
        sum0 = _mm_add_ps(sum0, _mm_mul_ps(input, _mm_loadu_ps(row0 + i)));
        sum1 = _mm_add_ps(sum1, _mm_mul_ps(input, _mm_loadu_ps(row1 + i)));
        sum2 = _mm_add_ps(sum2, _mm_mul_ps(input, _mm_loadu_ps(row2 + i)));
        sum3 = _mm_add_ps(sum3, _mm_mul_ps(input, _mm_loadu_ps(row3 + i)));
    }
    _MM_TRANSPOSE4_PS(sum0, sum1, sum2, sum3);
    return _mm_add_ps(_mm_add_ps(_mm_add_ps(sum1, sum0), sum2), sum3);
}

}  // namespace

int FullConnection_Float_SSE_M1::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (!make_top(bottom, top, opt)) return -100;
    const float* x = bottom.ptr<float>();
    float* out = top.ptr<float>();
    for (int p = 0; p < num_output; p += 4) {
        // In a last block of fewer than four outputs the last one stands in for those that are not
        // there.
        const int count = std::min(4, num_output - p);
        const float* rows[4];
        for (int i = 0; i < 4; ++i) {
            rows[i] = weights() + int64_t{p + std::min(i, count - 1)} * num_input;
        }
        const __m128 sums = dot_4(rows, x, num_input / 4);
        if (count == 4) {
            _mm_storeu_ps(out + p, sums);
        } else {
            float block[4];
            _mm_storeu_ps(block, sums);
            std::copy(block, block + count, out + p);
        }
    }
    add_bias(top);
    return 0;
}

}  // namespace TarnoCPU
