#include "cpu/operator_x86/convolution_3x1s1_float_sse_m1.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_3x1s1_Float_SSE_M1)

}  // namespace TarnoCPU
