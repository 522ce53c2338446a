#include "cpu/operator_x86/depthewise_convolution_3x3s1_float_sgemm.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Depthewise_Convolution_3x3s1_Float_SGEMM)

int Depthewise_Convolution_3x3s1_Float_SGEMM::forward(const Mat& bottom, Mat& top,
                                                      const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return convolve_channel_major(bottom, top, opt);
}

}  // namespace TarnoCPU
