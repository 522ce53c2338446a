#include "cpu/operator/softmax_float_fallback.h"

#include <cmath>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Softmax_Float_Fallback)

int Softmax_Float_Fallback::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) {
    return 0;
}

bool Softmax_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape) && shape.h == 1 && shape.w == 1;
}

int Softmax_Float_Fallback::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    if (bottom_top.empty()) return 0;
    float* x = bottom_top.ptr<float>();
    double sum = 0.0;
    for (int q = 0; q < bottom_top.shape.c; ++q) {
        sum += static_cast<float>(std::exp(static_cast<double>(x[q])));
    }
    // The exponential once more: the channels still hold the input.
    for (int q = 0; q < bottom_top.shape.c; ++q) {
        const float e = static_cast<float>(std::exp(static_cast<double>(x[q])));
        x[q] = static_cast<float>(e / sum);
    }
    return 0;
}

}  // namespace TarnoCPU
