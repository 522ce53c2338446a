#include "cpu/operator_x86/convolution_3x3s1_float_sse_m1.h"

#include "cpu/operator_x86/convolution_3x3_pixel_lanes.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x3s1_Float_SSE_M1)

Convolution_3x3s1_Float_SSE_M1::Convolution_3x3s1_Float_SSE_M1()
    : Convolution3x3(pixel_lanes<1, 4, 4>()) {}

bool Convolution_3x3s1_Float_SSE_M1::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int Convolution_3x3s1_Float_SSE_M1::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt);
}

}  // namespace TarnoCPU
