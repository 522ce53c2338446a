#include "cpu/operator_x86/convolution_1x1s1_float_sse_m4.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_1x1s1_Float_SSE_M4)

int Convolution_1x1s1_Float_SSE_M4::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    return convolve<16>(bottom, top, opt);
}

}  // namespace TarnoCPU
