#include "cpu/operator_x86/convolution_1x1_dot.h"

#include <algorithm>
#include <climits>

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/interleave.h"
#include "cpu/transform.h"

namespace TarnoCPU {
namespace {

int input_channels(const ConvolutionParams& params) {
    return params.num_output > 0 ? params.weight_data_size / params.num_output : 0;
}

void pack(const ConvolutionParams& params, const Mat& weight_data, Mat& packed) {
    transform_nchw_to_nc4hw4(weight_data, packed, params.num_output, input_channels(params), 1, 1);
}

}  // namespace

DotConvolution1x1::DotConvolution1x1() : DirectConvolution(&pack) {}

int DotConvolution1x1::load(const ParamDict& pd, const ModelBin& mb,
                            const LayerInferenceConfig& config) {
    const int result = DirectConvolution::load(pd, mb, config);
    // Only the packed form is read.
    weight_data = Mat();
    return result;
}

bool DotConvolution1x1::check_forward(const TensorShape& shape) {
    return is_float_chw(shape) && params.num_input % 4 == 0;
}

int DotConvolution1x1::convolve(const Mat& bottom, Mat& top, const Option& opt,
                                void (*kernel)(DotProduct product)) const {
    if (!ready_for(bottom) || bottom.shape.w > INT_MAX / 4) return -100;
    if (!make_top(bottom, params.num_output, 1, top, opt)) return -100;

    const TensorShape& shape = bottom.shape;
    const Mat scratch(TensorShape(TensorShape::C4HW4, shape.c / 4, shape.h, shape.w * 4, 4),
                      opt.blob_allocator);
    if (scratch.empty()) return -100;
    const int64_t plane = int64_t{shape.h} * shape.w;
    const int64_t blocks = scratch.shape.c;
    float* const in = static_cast<float*>(scratch.data);
    for (int64_t b = 0; b < blocks; ++b)
        interleave(bottom.ptr<float>() + 4 * b * plane, plane, in + 4 * b * plane);

    // Weights made for fewer channels than there are run on into those of the next output.
    const int64_t inputs = input_channels(params);
    const int64_t last_row = (params.num_output - 1) * inputs / 4 * 4;
    const Mat weights = extended_with_zeros(kernel_weights(), last_row + 4 * blocks);
    if (weights.empty()) return -100;
    for (int64_t p = 0; p < params.num_output; ++p) {
        float* const out = top.ptr<float>() + p * plane;
        std::fill(out, out + plane, bias()[p]);
        for (int64_t b = 0; b < blocks; ++b) {
            kernel({in + 4 * b * plane, out, weights.ptr<float>() + p * inputs / 4 * 4 + 4 * b,
                    shape.h, shape.w});
        }
    }
    return 0;
}

}  // namespace TarnoCPU
