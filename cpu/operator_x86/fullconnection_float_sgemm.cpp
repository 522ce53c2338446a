#include "cpu/operator_x86/fullconnection_float_sgemm.h"

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/sgemm.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(FullConnection_Float_SGEMM)

int FullConnection_Float_SGEMM::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (!make_top(bottom, top, opt)) return -100;
    if (!sgemm(num_output, num_input, 1, 1.0f, weights(), bottom.ptr<float>(), 0.0f,
               top.ptr<float>())) {
        return -100;
    }
    add_bias(top);
    return 0;
}

}  // namespace TarnoCPU
