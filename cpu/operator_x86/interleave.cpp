#include "cpu/operator_x86/interleave.h"

#include <emmintrin.h>

namespace TarnoCPU {

void interleave(const float* from, int64_t plane, float* to) {
    int64_t i = 0;
    for (; i + 4 <= plane; i += 4) {
        __m128 a = _mm_loadu_ps(from + i);
        __m128 b = _mm_loadu_ps(from + plane + i);
        __m128 c = _mm_loadu_ps(from + 2 * plane + i);
        __m128 d = _mm_loadu_ps(from + 3 * plane + i);
        _MM_TRANSPOSE4_PS(a, b, c, d);
        _mm_storeu_ps(to + 4 * i, a);
        _mm_storeu_ps(to + 4 * i + 4, b);
        _mm_storeu_ps(to + 4 * i + 8, c);
        _mm_storeu_ps(to + 4 * i + 12, d);
    }
    for (; i < plane; ++i) {
        for (int lane = 0; lane < 4; ++lane)
            to[4 * i + lane] = from[lane * plane + i];
    }
}

void separate(const float* from, int64_t plane, float* to) {
    int64_t i = 0;
    for (; i + 4 <= plane; i += 4) {
        __m128 a = _mm_loadu_ps(from + 4 * i);
        __m128 b = _mm_loadu_ps(from + 4 * i + 4);
        __m128 c = _mm_loadu_ps(from + 4 * i + 8);
        __m128 d = _mm_loadu_ps(from + 4 * i + 12);
        _MM_TRANSPOSE4_PS(a, b, c, d);
        _mm_storeu_ps(to + i, a);
        _mm_storeu_ps(to + plane + i, b);
        _mm_storeu_ps(to + 2 * plane + i, c);
        _mm_storeu_ps(to + 3 * plane + i, d);
    }
    for (; i < plane; ++i) {
        for (int lane = 0; lane < 4; ++lane)
            to[lane * plane + i] = from[4 * i + lane];
    }
}

}  // namespace TarnoCPU
