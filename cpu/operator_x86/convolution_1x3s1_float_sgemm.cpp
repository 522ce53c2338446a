#include "cpu/operator_x86/convolution_1x3s1_float_sgemm.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_1x3s1_Float_SGEMM)

int Convolution_1x3s1_Float_SGEMM::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt, opt.workspace_allocator);
}

}  // namespace TarnoCPU
