#include "cpu/operator/deconvolutiondepthwise_float_fallback.h"

#include "cpu/operator/kernel_support.h"
#include "cpu/operator/tap_scatter.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(DeconvolutionDepthwise_Float_Fallback)

int DeconvolutionDepthwise_Float_Fallback::load(const ParamDict& pd, const ModelBin& mb,
                                                const LayerInferenceConfig&) {
    return data.load(pd, mb);
}

bool DeconvolutionDepthwise_Float_Fallback::check_forward(const TensorShape& shape) {
    const ConvolutionParams& params = data.params;
    return is_float_chw(shape) && params.group > 0 && shape.c % params.group == 0 &&
           params.num_output % params.group == 0;
}

int DeconvolutionDepthwise_Float_Fallback::forward(const Mat& bottom, Mat& top, const Option&) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (!data.ready_for(bottom)) return -100;
    return convolve_transposed(data, data.params.group, bottom, top);
}

}  // namespace TarnoCPU
