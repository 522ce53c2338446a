#include "cpu/operator/batchnorm_float_fallback.h"

#include <algorithm>
#include <cmath>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Batchnorm_Float_Fallback)

int Batchnorm_Float_Fallback::load(const ParamDict& pd, const ModelBin& mb,
                                   const LayerInferenceConfig&) {
    loaded = false;
    channels = pd.get(0, 0);
    eps = pd.get(1, 0.0f);
    const Mat slope = mb.load(channels, 0, 0);
    const Mat mean = mb.load(channels, 1, 0);
    const Mat variance = mb.load(channels, 2, 0);
    const Mat bias = mb.load(channels, 3, 0);
    offset = mb.load(channels, 0, 0);
    scale = mb.load(channels, 0, 0);
    if (slope.empty() || mean.empty() || variance.empty() || bias.empty() || offset.empty() ||
        scale.empty()) {
        return -100;
    }
    for (int i = 0; i < channels; ++i) {
        const float sum = variance.ptr<float>()[i] + eps;
        const float d = static_cast<float>(std::sqrt(static_cast<double>(sum)));
        const float s = slope.ptr<float>()[i];
        offset.ptr<float>()[i] = bias.ptr<float>()[i] - s * mean.ptr<float>()[i] / d;
        scale.ptr<float>()[i] = s / d;
    }
    loaded = true;
    return 0;
}

bool Batchnorm_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int Batchnorm_Float_Fallback::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (!loaded) return -100;
    const TensorShape& shape = bottom_top.shape;
    if (bottom_top.data == nullptr || shape.dims() == 0) return 0;

    // The tensor as `count` runs of `size` elements, each with one scale and one offset.
    const int64_t count = shape.dims() == 3 ? shape.c : shape.dims() == 2 ? shape.h : shape.w;
    const int64_t size = shape.total() / count;
    const int64_t known = std::min<int64_t>(count, channels);
    float* x = bottom_top.ptr<float>();
    const float* a = offset.ptr<float>();
    const float* b = scale.ptr<float>();
    if (size == 1) {
        for (int64_t i = 0; i < known; ++i)
            x[i] = x[i] * b[i] + a[i];
    } else {
        for (int64_t i = 0; i < known; ++i) {
            float* run = x + i * size;
            const float run_scale = b[i], run_offset = a[i];
            for (int64_t j = 0; j < size; ++j)
                run[j] = run[j] * run_scale + run_offset;
        }
    }
    // A tensor of more runs than the model has channels meets zeros behind the arrays.
    for (int64_t i = known * size; i < shape.total(); ++i)
        x[i] = x[i] * 0.0f + 0.0f;
    return 0;
}

}  // namespace TarnoCPU
