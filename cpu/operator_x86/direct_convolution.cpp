#include "cpu/operator_x86/direct_convolution.h"

#include <cstring>

namespace TarnoCPU {

int DirectConvolution::load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig&) {
    params.read(pd);
    packed = Mat();
    bias_data = Mat();
    const int result = take_weights(mb);
    loaded = result == 0;
    return result;
}

int DirectConvolution::take_weights(const ModelBin& mb) {
    if (params.load_weights(mb, weight_data, bias_data) != 0) return -100;
    if (packing == nullptr) return 0;
    packed.create(weight_data.shape, nullptr);
    if (packed.empty()) return -100;
    // Helpers write what they have a place for and leave the rest.
    std::memset(packed.data, 0, static_cast<size_t>(packed.shape.total()) * sizeof(float));
    packing(params, weight_data, packed);
    return 0;
}

bool DirectConvolution::make_top(const Mat& bottom, int channels, int stride, Mat& top,
                                 const Option& opt) {
    TensorShape shape = bottom.shape;
    shape.c = channels;
    shape.h /= stride;
    shape.w /= stride;
    if (shape.dims() == 0) return false;
    top.create(shape, opt.blob_allocator);
    return !top.empty();
}

}  // namespace TarnoCPU
