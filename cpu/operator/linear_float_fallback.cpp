#include "cpu/operator/linear_float_fallback.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Linear_Float_Fallback)

int Linear_Float_Fallback::load(const ParamDict& pd, const ModelBin&, const LayerInferenceConfig&) {
    alpha = pd.get(0, 0.0f);
    beta = pd.get(1, 0.0f);
    return 0;
}

bool Linear_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape);
}

int Linear_Float_Fallback::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (bottom_top.empty()) return 0;
    float* x = bottom_top.ptr<float>();
    const int64_t total = bottom_top.shape.total();
    for (int64_t i = 0; i < total; ++i)
        x[i] = x[i] * alpha + beta;
    return 0;
}

}  // namespace TarnoCPU
