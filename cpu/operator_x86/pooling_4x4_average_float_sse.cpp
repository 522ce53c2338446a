#include "cpu/operator_x86/pooling_4x4_average_float_sse.h"

#include <emmintrin.h>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Pooling_4x4_Average_Float_SSE)

namespace {

// The four columns of a window, each added up row by row.
__m128 add_rows(const float* window, int64_t stride) {
    __m128 sum = _mm_loadu_ps(window);
    sum = _mm_add_ps(sum, _mm_loadu_ps(window + stride));
    sum = _mm_add_ps(sum, _mm_loadu_ps(window + 2 * stride));
    return _mm_add_ps(sum, _mm_loadu_ps(window + 3 * stride));
}

// The sum of four columns in their order, as a mean of 16.
__m128 mean_of(__m128 c0, __m128 c1, __m128 c2, __m128 c3) {
    const __m128 sum = _mm_add_ps(_mm_add_ps(_mm_add_ps(c0, c1), c2), c3);
    return _mm_mul_ps(sum, _mm_set1_ps(0.0625f));
}

void pool_window(const float* window, int64_t stride, float* out) {
    const __m128 c0 = add_rows(window, stride);
    const __m128 c1 = _mm_shuffle_ps(c0, c0, _MM_SHUFFLE(1, 1, 1, 1));
    const __m128 c2 = _mm_shuffle_ps(c0, c0, _MM_SHUFFLE(2, 2, 2, 2));
    const __m128 c3 = _mm_shuffle_ps(c0, c0, _MM_SHUFFLE(3, 3, 3, 3));
    _mm_store_ss(out, mean_of(c0, c1, c2, c3));
}

void pool_row(const float* row, int64_t stride, int64_t outw, float* out) {
    int64_t x = 0;
    for (; x + 4 <= outw; x += 4) {
        __m128 c0 = add_rows(row + 4 * x, stride);
        __m128 c1 = add_rows(row + 4 * x + 4, stride);
        __m128 c2 = add_rows(row + 4 * x + 8, stride);
        __m128 c3 = add_rows(row + 4 * x + 12, stride);
        _MM_TRANSPOSE4_PS(c0, c1, c2, c3);
        _mm_storeu_ps(out + x, mean_of(c0, c1, c2, c3));
    }
    for (; x < outw; ++x)
        pool_window(row + 4 * x, stride, out + x);
}

}  // namespace

int Pooling_4x4_Average_Float_SSE::forward(const Mat& bottom, Mat& top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (!make_top(bottom, top)) return -100;
    const int64_t w = bottom.shape.w;
    const bool fits = windows_fit(bottom.shape, top.shape, 4);
    float* out = top.ptr<float>();
    for (int q = 0; q < top.shape.c; ++q) {
        const float* plane = bottom.ptr<float>() + int64_t{q} * bottom.shape.h * w;
        for (int y = 0; y < top.shape.h; ++y, out += top.shape.w) {
            if (fits) {
                pool_row(plane + int64_t{y} * 4 * w, w, top.shape.w, out);
                continue;
            }
            for (int x = 0; x < top.shape.w; ++x) {
                float window[16];
                read_window(bottom, q, y, x, 4, window);
                pool_window(window, 4, out + x);
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
