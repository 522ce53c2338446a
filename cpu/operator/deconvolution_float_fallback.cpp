#include "cpu/operator/deconvolution_float_fallback.h"

#include "cpu/operator/kernel_support.h"
#include "cpu/operator/tap_scatter.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Deconvolution_Float_Fallback)

int Deconvolution_Float_Fallback::load(const ParamDict& pd, const ModelBin& mb,
                                       const LayerInferenceConfig&) {
    return data.load(pd, mb);
}

bool Deconvolution_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int Deconvolution_Float_Fallback::forward(const Mat& bottom, Mat& top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (!data.ready_for(bottom)) return -100;
    return convolve_transposed(data, 1, bottom, top);
}

}  // namespace TarnoCPU
