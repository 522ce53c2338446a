#include "cpu/operator_x86/depthewise_convolution_3x3s1_float_sse_m3.h"

#include <immintrin.h>

#include "cpu/operator/kernel_support.h"

#define TN_TARGET __attribute__((target("fma")))

namespace TarnoCPU {
namespace {

using Vector = __m128;
constexpr int vector_floats = 4;

TN_TARGET inline Vector load(const float* p) {
    return _mm_loadu_ps(p);
}
TN_TARGET inline void store(float* p, Vector v) {
    _mm_storeu_ps(p, v);
}
TN_TARGET inline Vector broadcast(const float* p) {
    return _mm_broadcast_ss(p);
}
TN_TARGET inline Vector multiply(Vector a, Vector b) {
    return _mm_mul_ps(a, b);
}
TN_TARGET inline Vector add(Vector a, Vector b) {
    return _mm_add_ps(a, b);
}
TN_TARGET inline Vector multiply_add(Vector a, Vector b, Vector c) {
    return _mm_fmadd_ps(a, b, c);
}

#include "cpu/operator_x86/depthwise_3x3_sweep.inc"

}  // namespace

TN_DEFINE_OPERATOR_CREATOR(Depthewise_Convolution_3x3s1_Float_SSE_M3)

int Depthewise_Convolution_3x3s1_Float_SSE_M3::forward(const Mat& bottom, Mat& top,
                                                       const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    return convolve(bottom, top, opt, sweep_pixels<4>());
}

}  // namespace TarnoCPU
