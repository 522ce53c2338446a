#include "cpu/layer.h"

#include <cstring>

#include "cpu/layer/activation.h"
#include "cpu/layer/batchnorm.h"
#include "cpu/layer/concat.h"
#include "cpu/layer/convolution.h"
#include "cpu/layer/convolutiondepthwise.h"
#include "cpu/layer/deconvolution.h"
#include "cpu/layer/deconvolutiondepthwise.h"
#include "cpu/layer/eltwise.h"
#include "cpu/layer/fullconnection.h"
#include "cpu/layer/input.h"
#include "cpu/layer/lstm.h"
#include "cpu/layer/pixelshuffle.h"
#include "cpu/layer/pooling.h"
#include "cpu/layer/region.h"
#include "cpu/layer/tensorreshape.h"
#include "cpu/layer/upsampling.h"

namespace TarnoCPU {

Layer::~Layer() = default;

int Layer::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig& config) {
    inference_config = config;
    return 0;
}

Operator* Layer::get_operator() {
    return nullptr;
}

int Layer::forward(const Mat& bottom, Mat& top, const Option& opt) {
    if (support_inplace) {
        top = bottom;
        return forward_inplace(top, opt);
    }
    top = bottom.clone(opt.blob_allocator);
    if (top.empty()) return -100;
    return forward_inplace(top, opt);
}

int Layer::forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops, const Option& opt) {
    tops = bottoms;
    return forward_inplace(tops, opt);
}

int Layer::forward_inplace(Mat&, const Option&) {
    return -1;
}

int Layer::forward_inplace(std::vector<Mat>&, const Option&) {
    return -1;
}

namespace {

template <typename LayerClass>
Layer* make_layer() {
    return new (std::nothrow) LayerClass;
}

struct LayerRow {
    const char* key;
    Layer* (*make)();
    bool one_blob_only;
    bool support_inplace;
};

const LayerRow layer_rows[] = {
    {"Activation", &make_layer<Activation>, true, false},
    {"Input", &make_layer<Input>, true, true},
    {"Convolution", &make_layer<Convolution>, true, false},
    {"ConvolutionDepthWise", &make_layer<ConvolutionDepthWise>, true, false},
    {"Deconvolution", &make_layer<Deconvolution>, true, false},
    {"DeconvolutionDepthWise", &make_layer<DeconvolutionDepthWise>, true, false},
    {"Concat", &make_layer<Concat>, false, false},
    {"Eltwise", &make_layer<Eltwise>, false, false},
    {"Pooling", &make_layer<Pooling>, true, false},
    {"PixelShuffle", &make_layer<PixelShuffle>, true, false},
    {"Region", &make_layer<Region>, true, true},
    {"Upsampling", &make_layer<Upsampling>, true, false},
    {"FullConnection", &make_layer<FullConnection>, true, false},
    {"TensorReshape", &make_layer<TensorReshape>, false, false},
    // The key is not the class name.
    {"BatchNormalization", &make_layer<Batchnorm>, true, false},
    {"LSTM", &make_layer<LSTM>, true, false},
};

}  // namespace

Layer* create_layer(const char* type) {
    if (type == nullptr) return nullptr;
    for (const LayerRow& row : layer_rows) {
        if (std::strcmp(row.key, type) != 0) continue;
        Layer* layer = row.make();
        if (layer == nullptr) return nullptr;
        layer->one_blob_only = row.one_blob_only;
        layer->support_inplace = row.support_inplace;
        return layer;
    }
    return nullptr;
}

}  // namespace TarnoCPU
