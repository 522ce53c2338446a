#include "cpu/operator_x86/depthewise_convolution_3x3s1_float_sse_m4.h"

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/depthwise_3x3_sse.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Depthewise_Convolution_3x3s1_Float_SSE_M4)

int Depthewise_Convolution_3x3s1_Float_SSE_M4::forward(const Mat& bottom, Mat& top,
                                                       const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    return convolve(bottom, top, opt, sse::sweep_pixels<4, 32>());
}

}  // namespace TarnoCPU
