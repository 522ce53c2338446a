#include "cpu/operator_x86/pixelshuffle_float_sse.h"

#include "cpu/operator/kernel_support.h"
#include "cpu/operator/pixel_shuffle.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(PixelShuffle_Float_SSE)

int PixelShuffle_Float_SSE::load(const ParamDict& pd, const ModelBin&,
                                 const LayerInferenceConfig&) {
    scale = pd.get(0, 0.0f);
    return 0;
}

bool PixelShuffle_Float_SSE::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int PixelShuffle_Float_SSE::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return pixel_shuffle(bottom, top, scale, opt);
}

}  // namespace TarnoCPU
