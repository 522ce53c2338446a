#include "cpu/operator_x86/elementwise_float_sse.h"

#include <emmintrin.h>

#include <algorithm>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Elementwise_Float_SSE)

namespace {

enum OpType { product = 0, sum = 1, maximum = 2 };

// The data of a bottom: `count` elements, zeros behind them.
struct Run {
    const float* data;
    int64_t count;
};

Run run_of(const Mat& bottom, int64_t longest) {
    if (bottom.empty()) return {nullptr, 0};
    return {bottom.ptr<float>(), std::min(bottom.shape.total(), longest)};
}

// out[i] = op(a[i], b[i]) over `count` elements. The last ones go through the same instructions one
// by one; a view has nothing behind them.
template <typename Op>
void combine(const float* a, Run b, int64_t count, float* out, Op op) {
    int64_t i = 0;
    for (; i + 8 <= b.count; i += 8) {
        const __m128 first = op(_mm_loadu_ps(a + i), _mm_loadu_ps(b.data + i));
        const __m128 second = op(_mm_loadu_ps(a + i + 4), _mm_loadu_ps(b.data + i + 4));
        _mm_storeu_ps(out + i, first);
        _mm_storeu_ps(out + i + 4, second);
    }
    for (; i < b.count; ++i) {
        _mm_store_ss(out + i, op(_mm_load_ss(a + i), _mm_load_ss(b.data + i)));
    }
    for (; i < count; ++i)
        _mm_store_ss(out + i, op(_mm_load_ss(a + i), _mm_setzero_ps()));
}

}  // namespace

int Elementwise_Float_SSE::load(const ParamDict& pd, const ModelBin&, const LayerInferenceConfig&) {
    op_type = pd.get(0, 0);
    coeffs = Mat();
    return 0;
}

bool Elementwise_Float_SSE::check_forward(const std::vector<TensorShape>& shapes) {
    return std::all_of(shapes.begin(), shapes.end(), is_float_of_any_layout);
}

int Elementwise_Float_SSE::forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                                   const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(shapes_of(bottoms)));
    if (bottoms.size() < 2 || tops.empty() || bottoms[0].empty()) return -100;
    Mat& top = tops[0];
    top.create(bottoms[0].shape, opt.blob_allocator);
    if (top.empty()) return -100;

    const int64_t count = top.shape.total();
    float* out = top.ptr<float>();
    const auto coeff = [this](size_t k) {
        return _mm_set1_ps(static_cast<int64_t>(k) < coeffs.shape.total() ? coeffs.ptr<float>()[k]
                                                                          : 0.0f);
    };
    for (size_t k = 1; k < bottoms.size(); ++k) {
        const float* a = k == 1 ? bottoms[0].ptr<float>() : out;
        const Run b = run_of(bottoms[k], count);
        if (op_type == sum && !coeffs.empty()) {
            const __m128 of_a = k == 1 ? coeff(0) : _mm_set1_ps(1.0f), of_b = coeff(k);
            combine(a, b, count, out, [=](__m128 x, __m128 y) {
                return _mm_add_ps(_mm_mul_ps(x, of_a), _mm_mul_ps(y, of_b));
            });
        } else if (op_type == sum) {
            combine(a, b, count, out, [](__m128 x, __m128 y) { return _mm_add_ps(x, y); });
        } else if (op_type == product) {
            combine(a, b, count, out, [](__m128 x, __m128 y) { return _mm_mul_ps(x, y); });
        } else if (op_type == maximum) {
            // The new one only where it is larger: the instruction gives its second operand when
            // the two do not compare, so the first stays where either is NaN.
            combine(a, b, count, out, [](__m128 x, __m128 y) { return _mm_max_ps(y, x); });
        }
    }
    return 0;
}

}  // namespace TarnoCPU
