#include "cpu/operator_x86/blas_convolution.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/im2col.h"
#include "cpu/operator_x86/sgemm.h"

namespace TarnoCPU {

bool BlasConvolution::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int BlasConvolution::load_weights(const ParamDict& pd, const ModelBin& mb, Filters filters) {
    weight_bias.release();
    params.read(pd);
    Mat weights, bias;
    if (params.load_weights(mb, weights, bias) != 0) return -100;
    if (!params.computable() || params.num_input < 0) return 0;

    const int64_t outputs = params.num_output;
    const int64_t window = params.kernel_taps();
    if (window > INT_MAX || params.num_input > (INT_MAX - 1) / window) return -100;
    const int64_t taps = params.num_input * window;
    if (outputs > INT_MAX / (taps + 1)) return -100;

    // How many weights there are is the model's word; what is missing is zeros.
    weights = extended_with_zeros(weights, outputs * taps);
    Mat packed(TensorShape(TensorShape::FLAT, 1, static_cast<int>(taps + 1), params.num_output, 4),
               nullptr);
    if (weights.empty() || packed.empty()) return -100;
    if (filters == Filters::Reversed) {
        float* filter = weights.ptr<float>();
        for (int64_t i = 0; i < outputs * params.num_input; ++i, filter += window) {
            std::reverse(filter, filter + window);
        }
    }
    transpose(weights.ptr<float>(), outputs, taps, packed.ptr<float>());
    float* last_row = packed.ptr<float>() + taps * outputs;
    const size_t row_bytes = static_cast<size_t>(outputs) * sizeof(float);
    if (bias.empty()) {
        std::memset(last_row, 0, row_bytes);
    } else {
        std::memcpy(last_row, bias.data, row_bytes);
    }
    weight_bias = packed;
    return 0;
}

int BlasConvolution::multiply(const Mat& bordered, int stride_h, int stride_w, Mat& top,
                              const Option& opt) const {
    const int pitch = weight_bias.shape.h;  // K + 1
    const int64_t pixels = int64_t{top.shape.h} * top.shape.w;
    if (pixels > INT_MAX) return -100;
    const int rows = static_cast<int>(pixels);
    Mat col(TensorShape(TensorShape::CHW, 1, rows, pitch, 4), opt.workspace_allocator);
    Mat result(TensorShape(TensorShape::CHW, 1, rows, params.num_output, 4),
               opt.workspace_allocator);
    if (col.empty() || result.empty()) return -100;

    Im2col work;
    work.source = bordered.ptr<float>();
    work.size = bordered.shape.total();
    work.plane = int64_t{bordered.shape.h} * bordered.shape.w;
    work.row = bordered.shape.w;
    work.channels = params.num_input;
    work.kernel_h = params.kernel_h;
    work.kernel_w = params.kernel_w;
    work.dilation_h = params.dilation_h;
    work.dilation_w = params.dilation_w;
    work.stride_h = stride_h;
    work.stride_w = stride_w;
    work.out_h = top.shape.h;
    work.out_w = top.shape.w;
    im2col_pixel_major(work, pitch, col.ptr<float>());
    float* one = col.ptr<float>() + pitch - 1;
    for (int64_t i = 0; i < pixels; ++i)
        one[i * pitch] = 1.0f;

    if (!sgemm(pixels, pitch, params.num_output, 1.0f, col.ptr<float>(), weight_bias.ptr<float>(),
               0.0f, result.ptr<float>())) {
        return -100;
    }
    transpose(result.ptr<float>(), pixels, params.num_output, top.ptr<float>());
    return 0;
}

}  // namespace TarnoCPU
