#include "cpu/operator_x86/convolution_3x3s1_float_sse_m2.h"

#include "cpu/operator_x86/convolution_3x3_output_lanes.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x3s1_Float_SSE_M2)

Convolution_3x3s1_Float_SSE_M2::Convolution_3x3s1_Float_SSE_M2()
    : Convolution3x3(output_lanes<4, 4>()) {}

bool Convolution_3x3s1_Float_SSE_M2::check_forward(const TensorShape& shape) {
    return is_float_chw(shape) && outputs_in_fours() && is_even(shape);
}

int Convolution_3x3s1_Float_SSE_M2::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt);
}

}  // namespace TarnoCPU
