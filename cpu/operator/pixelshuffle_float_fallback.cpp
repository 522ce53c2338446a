#include "cpu/operator/pixelshuffle_float_fallback.h"

#include "cpu/operator/kernel_support.h"
#include "cpu/operator/pixel_shuffle.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(PixelShuffle_Float_Fallback)

int PixelShuffle_Float_Fallback::load(const ParamDict& pd, const ModelBin&,
                                      const LayerInferenceConfig&) {
    scale = pd.get(0, 0.0f);
    return 0;
}

bool PixelShuffle_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int PixelShuffle_Float_Fallback::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    return pixel_shuffle(bottom, top, scale, opt);
}

}  // namespace TarnoCPU
