#include "cpu/operator_x86/convolution_3x3s1_float_sse_m8.h"

#include "cpu/operator_x86/convolution_3x3_input_lanes.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x3s1_Float_SSE_M8)

Convolution_3x3s1_Float_SSE_M8::Convolution_3x3s1_Float_SSE_M8()
    : Convolution3x3(input_lanes<1, 4, 2, 2>()) {}

bool Convolution_3x3s1_Float_SSE_M8::check_forward(const TensorShape& shape) {
    return is_float_chw(shape) && outputs_in_fours() && is_even(shape);
}

int Convolution_3x3s1_Float_SSE_M8::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt);
}

}  // namespace TarnoCPU
