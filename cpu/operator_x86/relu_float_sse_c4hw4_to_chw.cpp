#include "cpu/operator_x86/relu_float_sse_c4hw4_to_chw.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(ReLU_Float_SSE_C4HW4_To_CHW)

int ReLU_Float_SSE_C4HW4_To_CHW::forward(Mat& bottom_top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom_top.shape));
    return c4hw4_to_chw(bottom_top, no_ceiling, opt);
}

}  // namespace TarnoCPU
