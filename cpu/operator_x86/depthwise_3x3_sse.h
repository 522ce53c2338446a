// 3x3 depthwise tiles on 128-bit vectors.
#pragma once

#include <emmintrin.h>

#include "cpu/operator_x86/depthwise_convolution_3x3.h"

#define TN_TARGET

namespace TarnoCPU {
namespace {
namespace sse {

using Vector = __m128;
constexpr int vector_floats = 4;

inline Vector load(const float* p) {
    return _mm_loadu_ps(p);
}
inline void store(float* p, Vector v) {
    _mm_storeu_ps(p, v);
}
inline Vector broadcast(const float* p) {
    return _mm_set1_ps(*p);
}
inline Vector multiply(Vector a, Vector b) {
    return _mm_mul_ps(a, b);
}
inline Vector add(Vector a, Vector b) {
    return _mm_add_ps(a, b);
}
inline Vector multiply_add(Vector a, Vector b, Vector c) {
    return add(c, multiply(a, b));
}

#include "cpu/operator_x86/depthwise_3x3_sweep.inc"

// Rows x columns of pixels of four channels. Nine weights leave registers for 2x2 sums, so a larger
// step is done in such parts.
template <int Rows, int Columns, int Stride>
constexpr DepthwiseBlocking sweep_four_channels() {
    constexpr int held_rows = Rows < 2 ? Rows : 2;
    constexpr int held_columns = Columns < 2 ? Columns : 2;
    return {4,
            Stride,
            Rows,
            Columns,
            0,
            0,
            &sweep_plane<Rows, Columns, held_rows, held_columns, 4, Stride, 0>};
}

}  // namespace sse
}  // namespace
}  // namespace TarnoCPU

#undef TN_TARGET
