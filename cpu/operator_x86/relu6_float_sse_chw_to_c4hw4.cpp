#include "cpu/operator_x86/relu6_float_sse_chw_to_c4hw4.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(ReLU6_Float_SSE_CHW_To_C4HW4)

int ReLU6_Float_SSE_CHW_To_C4HW4::forward(Mat& bottom_top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    return chw_to_c4hw4(bottom_top, 6.0f, opt);
}

}  // namespace TarnoCPU
