#include "cpu/operator/sigmoid_float_fallback.h"

#include <cmath>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Sigmoid_Float_Fallback)

int Sigmoid_Float_Fallback::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) {
    return 0;
}

bool Sigmoid_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape);
}

int Sigmoid_Float_Fallback::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (bottom_top.empty()) return 0;
    float* x = bottom_top.ptr<float>();
    const int64_t total = bottom_top.shape.total();
    for (int64_t i = 0; i < total; ++i) {
        const float e = static_cast<float>(std::exp(static_cast<double>(-x[i])));
        x[i] = 1.0f / (e + 1.0f);
    }
    return 0;
}

}  // namespace TarnoCPU
