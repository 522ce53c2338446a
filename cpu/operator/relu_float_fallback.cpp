#include "cpu/operator/relu_float_fallback.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(ReLU_Float_Fallback)

int ReLU_Float_Fallback::load(const ParamDict& pd, const ModelBin&, const LayerInferenceConfig&) {
    slope = pd.get(0, 0.0f);
    return 0;
}

bool ReLU_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape);
}

int ReLU_Float_Fallback::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (bottom_top.data == nullptr) return 0;
    float* x = bottom_top.ptr<float>();
    const int64_t total = bottom_top.shape.total();
    // A slope of NaN counts as not 0.
    if (slope == 0.0f) {
        for (int64_t i = 0; i < total; ++i) x[i] = 0.0f > x[i] ? 0.0f : x[i];
    } else {
        for (int64_t i = 0; i < total; ++i) x[i] = 0.0f > x[i] ? x[i] * slope : x[i];
    }
    return 0;
}

}  // namespace TarnoCPU
