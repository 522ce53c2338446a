#include "cpu/operator_x86/convolution_1x1s1_float_sse_c4hw4_m6.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_1x1s1_Float_SSE_C4HW4_M6)

bool Convolution_1x1s1_Float_SSE_C4HW4_M6::check_forward(const TensorShape& shape) {
    return C4HW4Convolution1x1::check_forward(shape) && allows_rows_of(shape, 8);
}

int Convolution_1x1s1_Float_SSE_C4HW4_M6::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS_NO_HYPHEN(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    return convolve(bottom, top, opt, c4hw4_in_memory_across_rows<8, UnalignedAccess>());
}

}  // namespace TarnoCPU
