#include "cpu/operator_x86/convolution_float_blas.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Convolution_Float_Blas)

int Convolution_Float_Blas::load(const ParamDict& pd, const ModelBin& mb,
                                 const LayerInferenceConfig&) {
    return load_weights(pd, mb, Filters::AsStored);
}

int Convolution_Float_Blas::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (!loaded() || bottom.empty()) return -100;

    Mat bordered;
    if (params.make_padded(bottom, bordered, opt) != 0) return -100;
    TensorShape shape = bottom.shape;
    shape.c = params.num_output;
    shape.h /= params.stride_h;
    shape.w /= params.stride_w;
    if (shape.dims() == 0) return -100;
    if (top.data == bottom.data) top.release();
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;
    return multiply(bordered, params.stride_h, params.stride_w, top, opt);
}

}  // namespace TarnoCPU
