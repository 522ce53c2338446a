#include "cpu/operator_x86/fixed_window_pooling.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

int FixedWindowPooling::load(const ParamDict& pd, const ModelBin&, const LayerInferenceConfig&) {
    pooling_type = pd.get(0, 0);
    stride_w = pd.get(3, 0);
    stride_h = pd.get(4, stride_w);
    return 0;
}

bool FixedWindowPooling::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

bool FixedWindowPooling::make_top(const Mat& bottom, Mat& top) const {
    if (bottom.empty() || bottom.shape.dims() == 0 || stride_w <= 0 || stride_h <= 0) return false;
    TensorShape shape = bottom.shape;
    shape.h /= stride_h;
    shape.w /= stride_w;
    top.create(shape, nullptr);
    return !top.empty();
}

bool windows_fit(const TensorShape& bottom, const TensorShape& top, int size) {
    return int64_t{top.h} * size <= bottom.h && int64_t{top.w} * size <= bottom.w;
}

void read_window(const Mat& bottom, int q, int y, int x, int size, float* window) {
    const int64_t w = bottom.shape.w, h = bottom.shape.h;
    const int64_t first = (q * h + int64_t{y} * size) * w + int64_t{x} * size;
    for (int64_t dy = 0; dy < size; ++dy) {
        for (int64_t dx = 0; dx < size; ++dx) {
            const int64_t at = first + dy * w + dx;
            *window++ = at < bottom.shape.total() ? bottom.ptr<float>()[at] : 0.0f;
        }
    }
}

}  // namespace TarnoCPU
