#include "cpu/operator_x86/relu_float_avx.h"

#include <immintrin.h>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(ReLU_Float_AVX)

namespace {

// The zero stands second on purpose: the instruction gives its second operand when the two do not
// compare, so a NaN becomes 0. The last elements go through the same instruction one by one; a view
// has nothing behind them.
__attribute__((target("avx"))) void relu_avx(float* x, int64_t count) {
    const __m256 zero = _mm256_setzero_ps();
    int64_t i = 0;
    for (; i + 32 <= count; i += 32) {
        for (int64_t k = i; k < i + 32; k += 8) {
            _mm256_storeu_ps(x + k, _mm256_max_ps(_mm256_loadu_ps(x + k), zero));
        }
    }
    for (; i + 8 <= count; i += 8) {
        _mm256_storeu_ps(x + i, _mm256_max_ps(_mm256_loadu_ps(x + i), zero));
    }
    const __m128 scalar_zero = _mm_setzero_ps();
    for (; i < count; ++i)
        _mm_store_ss(x + i, _mm_max_ss(_mm_load_ss(x + i), scalar_zero));
}

}  // namespace

int ReLU_Float_AVX::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) {
    return 0;
}

bool ReLU_Float_AVX::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape);
}

int ReLU_Float_AVX::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (!bottom_top.empty()) relu_avx(bottom_top.ptr<float>(), bottom_top.shape.total());
    return 0;
}

}  // namespace TarnoCPU
