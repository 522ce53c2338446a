#include "cpu/operator/relu6_float_fallback.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(ReLU6_Float_Fallback)

int ReLU6_Float_Fallback::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) {
    return 0;
}

bool ReLU6_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape);
}

int ReLU6_Float_Fallback::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (bottom_top.empty()) return 0;
    float* x = bottom_top.ptr<float>();
    const int64_t total = bottom_top.shape.total();
    for (int64_t i = 0; i < total; ++i) {
        const float v = 0.0f > x[i] ? 0.0f : x[i];
        x[i] = v > 6.0f ? 6.0f : v;
    }
    return 0;
}

}  // namespace TarnoCPU
