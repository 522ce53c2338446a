#include "cpu/operator_x86/convolution_3x3s1_float_sse_c4hw4_m1.h"

#include "cpu/operator_x86/convolution_3x3_output_lanes.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x3s1_Float_SSE_C4HW4_M1)

Convolution_3x3s1_Float_SSE_C4HW4_M1::Convolution_3x3s1_Float_SSE_C4HW4_M1()
    : Convolution3x3(block_lanes<1>()) {}

bool Convolution_3x3s1_Float_SSE_C4HW4_M1::check_forward(const TensorShape& shape) {
    return shape.elem_size == 4 && shape.layout == TensorShape::C4HW4;
}

int Convolution_3x3s1_Float_SSE_C4HW4_M1::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt);
}

}  // namespace TarnoCPU
