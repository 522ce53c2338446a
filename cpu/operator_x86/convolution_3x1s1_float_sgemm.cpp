#include "cpu/operator_x86/convolution_3x1s1_float_sgemm.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x1s1_Float_SGEMM)

int Convolution_3x1s1_Float_SGEMM::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve(bottom, top, opt, opt.blob_allocator);
}

}  // namespace TarnoCPU
