#include "cpu/operator_x86/pooling_2x2s2_float_sse.h"

#include <emmintrin.h>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Pooling_2x2s2_Float_SSE)

namespace {

enum PoolingType { maximum = 0, average = 1 };

// The instruction gives its second operand when the two do not compare, so m changes only for a
// larger value, as in the reference: a NaN in the first place stays, elsewhere it is passed over.
struct Maximum {
    static __m128 of(__m128 top_left, __m128 top_right, __m128 bottom_left, __m128 bottom_right) {
        __m128 m = _mm_max_ps(top_right, top_left);
        m = _mm_max_ps(bottom_left, m);
        return _mm_max_ps(bottom_right, m);
    }
};

struct Average {
    static __m128 of(__m128 top_left, __m128 top_right, __m128 bottom_left, __m128 bottom_right) {
        __m128 sum = _mm_add_ps(top_right, top_left);
        sum = _mm_add_ps(sum, bottom_left);
        sum = _mm_add_ps(sum, bottom_right);
        return _mm_mul_ps(sum, _mm_set1_ps(0.25f));
    }
};

template <typename Pool>
void pool_window(const float* upper, const float* lower, float* out) {
    _mm_store_ss(out, Pool::of(_mm_load_ss(upper), _mm_load_ss(upper + 1), _mm_load_ss(lower),
                               _mm_load_ss(lower + 1)));
}

template <typename Pool>
void pool_row(const float* upper, const float* lower, int64_t outw, float* out) {
    int64_t x = 0;
    for (; x + 4 <= outw; x += 4) {
        const __m128 upper_low = _mm_loadu_ps(upper + 2 * x);
        const __m128 upper_high = _mm_loadu_ps(upper + 2 * x + 4);
        const __m128 lower_low = _mm_loadu_ps(lower + 2 * x);
        const __m128 lower_high = _mm_loadu_ps(lower + 2 * x + 4);
        constexpr int even = _MM_SHUFFLE(2, 0, 2, 0), odd = _MM_SHUFFLE(3, 1, 3, 1);
        _mm_storeu_ps(out + x, Pool::of(_mm_shuffle_ps(upper_low, upper_high, even),
                                        _mm_shuffle_ps(upper_low, upper_high, odd),
                                        _mm_shuffle_ps(lower_low, lower_high, even),
                                        _mm_shuffle_ps(lower_low, lower_high, odd)));
    }
    for (; x < outw; ++x)
        pool_window<Pool>(upper + 2 * x, lower + 2 * x, out + x);
}

template <typename Pool>
void pool(const Mat& bottom, Mat& top) {
    const int64_t w = bottom.shape.w;
    const bool fits = windows_fit(bottom.shape, top.shape, 2);
    float* out = top.ptr<float>();
    for (int q = 0; q < top.shape.c; ++q) {
        const float* plane = bottom.ptr<float>() + int64_t{q} * bottom.shape.h * w;
        for (int y = 0; y < top.shape.h; ++y, out += top.shape.w) {
            if (fits) {
                const float* upper = plane + int64_t{y} * 2 * w;
                pool_row<Pool>(upper, upper + w, top.shape.w, out);
                continue;
            }
            for (int x = 0; x < top.shape.w; ++x) {
                float window[4];
                read_window(bottom, q, y, x, 2, window);
                pool_window<Pool>(window, window + 2, out + x);
            }
        }
    }
}

}  // namespace

int Pooling_2x2s2_Float_SSE::forward(const Mat& bottom, Mat& top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (!make_top(bottom, top)) return -100;
    if (pooling_type == maximum) pool<Maximum>(bottom, top);
    if (pooling_type == average) pool<Average>(bottom, top);
    return 0;
}

}  // namespace TarnoCPU
