#include "cpu/operator/convolutiondepthwise_float_fallback.h"

#include "cpu/operator/kernel_support.h"
#include "cpu/operator/tap_sums.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(ConvolutionDepthwise_Float_Fallback)

int ConvolutionDepthwise_Float_Fallback::load(const ParamDict& pd, const ModelBin& mb,
                                              const LayerInferenceConfig&) {
    return data.load(pd, mb);
}

bool ConvolutionDepthwise_Float_Fallback::check_forward(const TensorShape& shape) {
    const ConvolutionParams& params = data.params;
    return is_float_chw(shape) && params.group > 0 && shape.c % params.group == 0 &&
           params.num_output % params.group == 0;
}

int ConvolutionDepthwise_Float_Fallback::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (!data.ready_for(bottom)) return -100;
    const ConvolutionParams& params = data.params;
    Mat padded;
    if (params.make_padded(bottom, padded, opt) != 0) return -100;

    // Division toward zero: a bottom that is narrower than the kernel by less than a stride still
    // gives one column, whose window runs on into the next row.
    const int64_t outw = (padded.shape.w - params.kernel_extent_w()) / params.stride_w + 1;
    const int64_t outh = (padded.shape.h - params.kernel_extent_h()) / params.stride_h + 1;
    if (outw <= 0 || outh <= 0) return -100;
    TensorShape shape = bottom.shape;
    shape.c = params.num_output;
    shape.h = static_cast<int>(outh);
    shape.w = static_cast<int>(outw);
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;
    return convolve(data, params.group, padded, top);
}

}  // namespace TarnoCPU
