#include "cpu/operator_x86/convolution_1x1s1_float_sse_m6.h"

#include <emmintrin.h>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {
namespace {

// Bound by the way across the lanes: two shuffles and three sums for one product, fifteen
// instructions a pixel.
void add_products(DotProduct product) {
    const __m128 w = _mm_loadu_ps(product.weights);
    const float* in = product.in;
    const float* const end = product.out + product.rows * product.columns;
    for (float* out = product.out; out != end; ++out, in += 4) {
        const __m128 p = _mm_mul_ps(_mm_loadu_ps(in), w);
        const __m128 pairs = _mm_add_ps(p, _mm_movehl_ps(p, p));
        const __m128 odd = _mm_shuffle_ps(pairs, pairs, _MM_SHUFFLE(1, 1, 1, 1));
        const __m128 sum = _mm_add_ss(pairs, odd);
        _mm_store_ss(out, _mm_add_ss(_mm_load_ss(out), sum));
    }
}

}  // namespace

TN_DEFINE_OPERATOR_CREATOR(Convolution_1x1s1_Float_SSE_M6)

int Convolution_1x1s1_Float_SSE_M6::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    return convolve(bottom, top, opt, &add_products);
}

}  // namespace TarnoCPU
