#include "cpu/operator/input_fallback.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Input_Fallback)

int Input_Fallback::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) {
    return 0;
}

bool Input_Fallback::check_forward(const TensorShape& shape) {
    return shape.layout == TensorShape::CHW;
}

int Input_Fallback::forward(Mat& bottom_top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    return 0;
}

}  // namespace TarnoCPU
