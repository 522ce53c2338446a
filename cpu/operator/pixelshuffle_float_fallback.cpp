#include "cpu/operator/pixelshuffle_float_fallback.h"

#include <climits>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(PixelShuffle_Float_Fallback)

namespace {

// (int)v, 0 for what is no positive int.
int positive_int(float v) {
    return v >= 1.0f && v < 2147483648.0f ? static_cast<int>(v) : 0;
}

}  // namespace

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
    if (bottom.empty() || bottom.shape.dims() == 0) return -100;
    const int64_t c = bottom.shape.c, h = bottom.shape.h, w = bottom.shape.w;
    const bool to_space = scale >= 1.0f;
    const int64_t r = positive_int(to_space ? scale : 1.0f / scale);
    if (r == 0) return -100;

    // Nothing may be lost: a factor that does not divide would leave another number of elements.
    if (to_space ? c % (r * r) != 0 : h % r != 0 || w % r != 0) return -100;
    const int64_t outc = to_space ? c / (r * r) : c * r * r;
    const int64_t outh = to_space ? h * r : h / r;
    const int64_t outw = to_space ? w * r : w / r;
    if (outc > INT_MAX || outh > INT_MAX || outw > INT_MAX) return -100;
    top.create(TensorShape(bottom.shape.layout, static_cast<int>(outc), static_cast<int>(outh),
                           static_cast<int>(outw), bottom.shape.elem_size),
               opt.blob_allocator);
    if (top.empty()) return -100;

    // One side is coarse, with r * r times the channels, the other fine.
    const float* source = bottom.ptr<float>();
    float* target = top.ptr<float>();
    const int64_t fine_c = to_space ? outc : c;
    const int64_t coarse_h = to_space ? h : outh, coarse_w = to_space ? w : outw;
    const int64_t fine_w = coarse_w * r;
    for (int64_t o = 0; o < fine_c; ++o) {
        for (int64_t ry = 0; ry < r; ++ry) {
            for (int64_t rx = 0; rx < r; ++rx) {
                int64_t coarse = ((o * r + ry) * r + rx) * coarse_h * coarse_w;
                for (int64_t y = 0; y < coarse_h; ++y) {
                    int64_t fine = ((o * coarse_h + y) * r + ry) * fine_w + rx;
                    for (int64_t x = 0; x < coarse_w; ++x, ++coarse, fine += r) {
                        if (to_space) {
                            target[fine] = source[coarse];
                        } else {
                            target[coarse] = source[fine];
                        }
                    }
                }
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
