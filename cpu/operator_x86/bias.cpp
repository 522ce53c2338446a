#include "cpu/operator_x86/bias.h"

#include <emmintrin.h>

namespace TarnoCPU {

void add_bias(float* x, int64_t channels, int64_t plane, const float* bias, int64_t bias_count) {
    for (int64_t p = 0; p < channels; ++p, x += plane) {
        const float b = p < bias_count ? bias[p] : 0.0f;
        const __m128 bs = _mm_set1_ps(b);
        int64_t i = 0;
        for (; i + 16 <= plane; i += 16) {
            const __m128 x0 = _mm_add_ps(_mm_loadu_ps(x + i), bs);
            const __m128 x1 = _mm_add_ps(_mm_loadu_ps(x + i + 4), bs);
            const __m128 x2 = _mm_add_ps(_mm_loadu_ps(x + i + 8), bs);
            const __m128 x3 = _mm_add_ps(_mm_loadu_ps(x + i + 12), bs);
            _mm_storeu_ps(x + i, x0);
            _mm_storeu_ps(x + i + 4, x1);
            _mm_storeu_ps(x + i + 8, x2);
            _mm_storeu_ps(x + i + 12, x3);
        }
        for (; i + 4 <= plane; i += 4) {
            _mm_storeu_ps(x + i, _mm_add_ps(_mm_loadu_ps(x + i), bs));
        }
        for (; i < plane; ++i)
            x[i] += b;
    }
}

}  // namespace TarnoCPU
