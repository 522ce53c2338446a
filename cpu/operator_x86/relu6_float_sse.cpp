#include "cpu/operator_x86/relu6_float_sse.h"

#include <emmintrin.h>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(ReLU6_Float_SSE)

namespace {

// The zero stands second on purpose: the instruction gives its second operand when the two do not
// compare, so a NaN becomes 0. The last elements go through the same instructions one by one; a
// view has nothing behind them.
void relu6(float* x, int64_t count) {
    const __m128 zero = _mm_setzero_ps();
    const __m128 six = _mm_set1_ps(6.0f);
    int64_t i = 0;
    for (; i + 16 <= count; i += 16) {
        for (int64_t k = i; k < i + 16; k += 4) {
            _mm_storeu_ps(x + k, _mm_min_ps(_mm_max_ps(_mm_loadu_ps(x + k), zero), six));
        }
    }
    for (; i < count; ++i) {
        _mm_store_ss(x + i, _mm_min_ss(_mm_max_ss(_mm_load_ss(x + i), zero), six));
    }
}

}  // namespace

int ReLU6_Float_SSE::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) {
    return 0;
}

bool ReLU6_Float_SSE::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape);
}

int ReLU6_Float_SSE::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (!bottom_top.empty()) relu6(bottom_top.ptr<float>(), bottom_top.shape.total());
    return 0;
}

}  // namespace TarnoCPU
