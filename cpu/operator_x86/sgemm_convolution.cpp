#include "cpu/operator_x86/sgemm_convolution.h"

#include <climits>

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/bias.h"
#include "cpu/operator_x86/im2col.h"
#include "cpu/operator_x86/sgemm.h"

namespace TarnoCPU {
namespace {

// The taps of `kernel` over `channels` channels of `bordered`, for every pixel of `top`.
Im2col im2col_of(const Mat& bordered, int64_t channels, const SgemmKernel& kernel, const Mat& top) {
    Im2col work;
    work.source = bordered.ptr<float>();
    work.size = bordered.shape.total();
    work.plane = int64_t{bordered.shape.h} * bordered.shape.w;
    work.row = bordered.shape.w;
    work.channels = channels;
    work.kernel_h = kernel.height;
    work.kernel_w = kernel.width;
    work.dilation_h = work.dilation_w = 1;
    work.stride_h = work.stride_w = kernel.stride;
    work.out_h = top.shape.h;
    work.out_w = top.shape.w;
    return work;
}

// A scratch matrix, or one per channel; empty when a size is none or there is no memory.
Mat scratch_matrix(int64_t channels, int64_t rows, int64_t columns, Allocator* allocator) {
    if (channels < 1 || rows < 1 || columns < 1) return Mat();
    if (channels > INT_MAX || rows > INT_MAX || columns > INT_MAX) return Mat();
    return Mat(TensorShape(TensorShape::CHW, static_cast<int>(channels), static_cast<int>(rows),
                           static_cast<int>(columns), sizeof(float)),
               allocator);
}

int64_t pixels_of(const Mat& top) {
    return int64_t{top.shape.h} * top.shape.w;
}

}  // namespace

bool SgemmOperator::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int SgemmOperator::load_arrays(const ParamDict& pd, const ModelBin& mb) {
    params.read(pd);
    const int result = params.load_weights(mb, weight_data, bias_data);
    if (result != 0) weight_data.release();
    return result;
}

int SgemmOperator::lengthen_weights(int64_t rows, int64_t columns) {
    if (columns > INT_MAX / rows) {
        weight_data.release();
    } else {
        weight_data = extended_with_zeros(weight_data, rows * columns);
    }
    return weight_data.empty() ? -100 : 0;
}

int SgemmOperator::begin(const Mat& bottom, int channels, Mat& bordered, Mat& top,
                         const Option& opt) const {
    if (weight_data.empty() || bottom.empty()) return -100;
    // A border that cuts would leave the taps without the pixels that their sizes promise.
    if (params.pad_h < 0 || params.pad_w < 0) return -100;
    copy_make_border(bottom, bordered, params.pad_h, params.pad_h, params.pad_w, params.pad_w, 0,
                     0.0f, opt.workspace_allocator, 1);
    if (bordered.empty()) return -100;

    TensorShape shape = bottom.shape;
    shape.c = channels;
    switch (kernel.size) {
        case SgemmKernel::Size::AsBottom:
            break;
        case SgemmKernel::Size::LessWithoutPad:
            if (params.pad_h == 0) shape.h -= kernel.height - 1;
            if (params.pad_w == 0) shape.w -= kernel.width - 1;
            break;
        case SgemmKernel::Size::Half:
            shape.h /= 2;
            shape.w /= 2;
            break;
    }
    if (shape.dims() == 0) return -100;
    // A top that still shares bottom's block gets one of its own: the product reads while it
    // writes.
    if (top.data == bottom.data) top.release();
    top.create(shape, opt.blob_allocator);
    return top.empty() ? -100 : 0;
}

void SgemmOperator::finish(Mat& top) const {
    if (params.bias_term == 0) return;
    add_bias(top.ptr<float>(), top.shape.c, pixels_of(top), bias_data.ptr<float>(),
             bias_data.shape.total());
}

int SgemmConvolution::load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig&) {
    const int result = load_arrays(pd, mb);
    if (result != 0 || params.num_output < 1 || params.num_input < 1) return result;
    return lengthen_weights(params.num_output, int64_t{params.num_input} * kernel.taps());
}

int SgemmConvolution::multiply(const Mat& col, int64_t taps, Mat& top) const {
    // Lengthened once more where a 1x1 kernel meets a bottom of more channels than it was made for.
    const Mat weights = extended_with_zeros(weight_data, params.num_output * taps);
    if (weights.empty()) return -100;
    if (!sgemm(params.num_output, taps, pixels_of(top), 1.0f, weights.ptr<float>(),
               col.ptr<float>(), 0.0f, top.ptr<float>())) {
        return -100;
    }
    finish(top);
    return 0;
}

int SgemmConvolution::convolve(const Mat& bottom, Mat& top, const Option& opt,
                               Allocator* scratch) const {
    Mat bordered;
    if (begin(bottom, params.num_output, bordered, top, opt) != 0) return -100;
    const int64_t taps = int64_t{params.num_input} * kernel.taps();
    Mat col = scratch_matrix(1, taps, pixels_of(top), scratch);
    if (col.empty()) return -100;
    im2col_channel_major(im2col_of(bordered, params.num_input, kernel, top), col.ptr<float>());
    return multiply(col, taps, top);
}

int SgemmConvolution::convolve_bottom(const Mat& bottom, Mat& top, const Option& opt) const {
    const Mat source = bottom;  // top may be bottom
    Mat bordered;
    if (begin(source, params.num_output, bordered, top, opt) != 0) return -100;
    return multiply(source, source.shape.c, top);
}

int SgemmConvolution::convolve_every_second(const Mat& bottom, Mat& top, const Option& opt,
                                            Allocator* scratch) const {
    const Mat source = bottom;  // top may be bottom
    Mat bordered;
    if (begin(source, params.num_output, bordered, top, opt) != 0) return -100;
    const TensorShape& shape = source.shape;
    Mat col = scratch_matrix(1, shape.c, pixels_of(top), scratch);
    if (col.empty()) return -100;
    // The rows of an odd width keep their (w + 1) / 2 pixels although a row of top has w / 2: from
    // the second row on the pixels of such a channel are shifted, and what is left over would lie
    // in the next channel, which overwrites it. Even sizes are what the kernel is for.
    gather_every_second(source.ptr<float>(), shape.c, shape.h, shape.w, pixels_of(top),
                        col.ptr<float>());
    return multiply(col, shape.c, top);
}

int PixelMajorSgemmConvolution::load(const ParamDict& pd, const ModelBin& mb,
                                     const LayerInferenceConfig&) {
    const int result = load_arrays(pd, mb);
    if (result != 0 || params.num_output < 1 || params.num_input < 1) return result;
    const int64_t taps = int64_t{params.num_input} * kernel.taps();
    if (lengthen_weights(params.num_output, taps) != 0) return -100;
    Mat transposed = scratch_matrix(1, taps, params.num_output, nullptr);
    if (!transposed.empty()) {
        transpose(weight_data.ptr<float>(), params.num_output, taps, transposed.ptr<float>());
    }
    weight_data = transposed;
    return weight_data.empty() ? -100 : 0;
}

int PixelMajorSgemmConvolution::convolve(const Mat& bottom, Mat& top, const Option& opt,
                                         Allocator* scratch) const {
    Mat bordered;
    if (begin(bottom, params.num_output, bordered, top, opt) != 0) return -100;
    const int64_t taps = int64_t{params.num_input} * kernel.taps();
    const int64_t pixels = pixels_of(top);
    Mat col = scratch_matrix(1, pixels, taps, scratch);
    Mat result = scratch_matrix(1, pixels, params.num_output, opt.workspace_allocator);
    if (col.empty() || result.empty()) return -100;
    im2col_pixel_major(im2col_of(bordered, params.num_input, kernel, top), taps, col.ptr<float>());
    if (!sgemm(pixels, taps, params.num_output, 1.0f, col.ptr<float>(), weight_data.ptr<float>(),
               0.0f, result.ptr<float>())) {
        return -100;
    }
    transpose(result.ptr<float>(), pixels, params.num_output, top.ptr<float>());
    finish(top);
    return 0;
}

int DepthwiseSgemmConvolution::load(const ParamDict& pd, const ModelBin& mb,
                                    const LayerInferenceConfig&) {
    const int result = load_arrays(pd, mb);
    if (result != 0 || params.num_output < 1) return result;
    return lengthen_weights(params.num_output, kernel.taps());
}

bool DepthwiseSgemmConvolution::check_forward(const TensorShape& shape) {
    // A group of 0 or less divides nothing.
    return is_float_chw(shape) && params.group > 0 && shape.c % params.group == 0 &&
           params.num_output % params.group == 0;
}

int DepthwiseSgemmConvolution::convolve_channel_major(const Mat& bottom, Mat& top,
                                                      const Option& opt) const {
    Mat bordered;
    if (begin(bottom, bottom.shape.c, bordered, top, opt) != 0) return -100;
    const int64_t channels = top.shape.c, taps = kernel.taps(), pixels = pixels_of(top);
    const Mat weights = extended_with_zeros(weight_data, channels * taps);
    Mat col = scratch_matrix(channels, taps, pixels, opt.workspace_allocator);
    if (weights.empty() || col.empty()) return -100;
    im2col_channel_major(im2col_of(bordered, channels, kernel, top), col.ptr<float>());
    for (int64_t q = 0; q < channels; ++q) {
        if (!sgemm(1, taps, pixels, 1.0f, weights.ptr<float>() + q * taps,
                   col.ptr<float>() + q * taps * pixels, 0.0f, top.ptr<float>() + q * pixels)) {
            return -100;
        }
    }
    finish(top);
    return 0;
}

int DepthwiseSgemmConvolution::convolve_pixel_major(const Mat& bottom, Mat& top,
                                                    const Option& opt) const {
    Mat bordered;
    if (begin(bottom, bottom.shape.c, bordered, top, opt) != 0) return -100;
    const int64_t channels = top.shape.c, taps = kernel.taps(), pixels = pixels_of(top);
    const Mat weights = extended_with_zeros(weight_data, channels * taps);
    Mat col = scratch_matrix(channels, pixels, taps, opt.workspace_allocator);
    if (weights.empty() || col.empty()) return -100;
    Im2col work = im2col_of(bordered, 1, kernel, top);
    for (int64_t q = 0; q < channels; ++q) {
        float* patches = col.ptr<float>() + q * pixels * taps;
        im2col_pixel_major(work, taps, patches);
        work.source += work.plane;
        work.size -= work.plane;
        if (!sgemm(pixels, taps, 1, 1.0f, patches, weights.ptr<float>() + q * taps, 0.0f,
                   top.ptr<float>() + q * pixels)) {
            return -100;
        }
    }
    finish(top);
    return 0;
}

}  // namespace TarnoCPU
