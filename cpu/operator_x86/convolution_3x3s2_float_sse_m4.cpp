// Above every include: the kernels below are compiled for fused multiply-add.
#define TN_CONVOLUTION_3X3_FMA

#include "cpu/operator_x86/convolution_3x3s2_float_sse_m4.h"

#include "cpu/operator_x86/convolution_3x3_pixel_lanes.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x3s2_Float_SSE_M4)

Convolution_3x3s2_Float_SSE_M4::Convolution_3x3s2_Float_SSE_M4()
    : Convolution3x3(even_pixel_lanes<1>()) {}

bool Convolution_3x3s2_Float_SSE_M4::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int Convolution_3x3s2_Float_SSE_M4::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt);
}

}  // namespace TarnoCPU
