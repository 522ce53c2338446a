// 3x3 depthwise tiles on 256-bit vectors.
#pragma once

#include <immintrin.h>

#include "cpu/operator_x86/depthwise_convolution_3x3.h"

#define TN_TARGET __attribute__((target("avx2")))

namespace TarnoCPU {
namespace {
namespace avx2 {

using Vector = __m256;
constexpr int vector_floats = 8;

TN_TARGET inline Vector load(const float* p) {
    return _mm256_loadu_ps(p);
}
TN_TARGET inline void store(float* p, Vector v) {
    _mm256_storeu_ps(p, v);
}
TN_TARGET inline Vector broadcast(const float* p) {
    return _mm256_broadcast_ss(p);
}
TN_TARGET inline Vector multiply(Vector a, Vector b) {
    return _mm256_mul_ps(a, b);
}
TN_TARGET inline Vector add(Vector a, Vector b) {
    return _mm256_add_ps(a, b);
}
TN_TARGET inline Vector multiply_add(Vector a, Vector b, Vector c) {
    return add(c, multiply(a, b));
}

#include "cpu/operator_x86/depthwise_3x3_sweep.inc"

}  // namespace avx2
}  // namespace
}  // namespace TarnoCPU

#undef TN_TARGET
