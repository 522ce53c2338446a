#include "cpu/operator_x86/deconvolution_float_blas.h"

#include <climits>
#include <cstring>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Deconvolution_Float_Blas)

int Deconvolution_Float_Blas::load(const ParamDict& pd, const ModelBin& mb,
                                   const LayerInferenceConfig&) {
    return load_weights(pd, mb, Filters::Reversed);
}

bool Deconvolution_Float_Blas::insert_zeros(const Mat& bottom, Mat& spread,
                                            const Option& opt) const {
    TensorShape shape = bottom.shape;
    shape.h *= params.stride_h;
    shape.w *= params.stride_w;
    spread.create(shape, opt.workspace_allocator);
    if (spread.empty()) return false;
    std::memset(spread.data, 0, static_cast<size_t>(shape.total()) * sizeof(float));
    const float* from = bottom.ptr<float>();
    for (int64_t row = 0; row < int64_t{bottom.shape.c} * bottom.shape.h; ++row) {
        float* to = spread.ptr<float>() + row * params.stride_h * shape.w;
        for (int x = 0; x < bottom.shape.w; ++x)
            to[int64_t{x} * params.stride_w] = *from++;
    }
    return true;
}

bool Deconvolution_Float_Blas::put_border(const TensorShape& bottom, Mat& spread) const {
    int64_t hpad = 0, wpad = 0;
    if (params.pad_h > 0 || params.pad_w > 0) {
        hpad = int64_t{2} * params.pad_h;
        wpad = int64_t{2} * params.pad_w;
    } else if (params.pad_h == ConvolutionParams::keep_size &&
               params.pad_w == ConvolutionParams::keep_size) {
        // The kernel does not enter: a constant 2 stands where its extent would be expected, and
        // the size is that of bottom, not of what the border goes around.
        hpad = (int64_t{bottom.h} - 1) / params.stride_h * params.stride_h - bottom.h + 2;
        wpad = (int64_t{bottom.w} - 1) / params.stride_w * params.stride_w - bottom.w + 2;
    }
    if (hpad <= 0 && wpad <= 0) return true;
    if (hpad > INT_MAX || wpad > INT_MAX || hpad < INT_MIN || wpad < INT_MIN) return false;
    // The larger half is at the bottom and on the right. The block is from the plain heap, unlike
    // all other scratch.
    const int top = static_cast<int>(hpad / 2), left = static_cast<int>(wpad / 2);
    const Mat inside = spread;
    copy_make_border(inside, spread, top, static_cast<int>(hpad) - top, left,
                     static_cast<int>(wpad) - left, 0, 0.0f, nullptr, 1);
    return !spread.empty();
}

int Deconvolution_Float_Blas::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (!loaded() || bottom.empty()) return -100;

    const Mat source = bottom;  // top may be bottom
    const int64_t h = int64_t{source.shape.h} * params.stride_h;
    const int64_t w = int64_t{source.shape.w} * params.stride_w;
    if (h > INT_MAX || w > INT_MAX) return -100;
    TensorShape shape = source.shape;
    shape.c = params.num_output;
    shape.h = static_cast<int>(h);
    shape.w = static_cast<int>(w);
    if (shape.dims() == 0) return -100;
    if (top.data == source.data) top.release();
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;

    Mat spread;
    if (!insert_zeros(source, spread, opt) || !put_border(source.shape, spread)) return -100;
    return multiply(spread, 1, 1, top, opt);
}

}  // namespace TarnoCPU
