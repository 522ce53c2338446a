// Above every include: the kernels below are compiled for fused multiply-add.
#define TN_CONVOLUTION_3X3_FMA

#include "cpu/operator_x86/convolution_3x3s2_float_sse_m6.h"

#include "cpu/operator_x86/convolution_3x3_input_lanes.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x3s2_Float_SSE_M6)

Convolution_3x3s2_Float_SSE_M6::Convolution_3x3s2_Float_SSE_M6()
    : Convolution3x3(input_lanes<2, 1, 4, 4>()) {}

bool Convolution_3x3s2_Float_SSE_M6::check_forward(const TensorShape& shape) {
    return is_float_chw(shape) && outputs_in_fours() && is_even(shape);
}

int Convolution_3x3s2_Float_SSE_M6::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt);
}

}  // namespace TarnoCPU
