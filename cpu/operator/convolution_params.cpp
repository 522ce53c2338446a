#include "cpu/operator/convolution_params.h"

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

void ConvolutionParams::read(const ParamDict& pd) {
    num_output = pd.get(0, 0);
    kernel_w = pd.get(1, 0);
    kernel_h = pd.get(2, kernel_w);
    dilation_w = pd.get(3, 0);
    dilation_h = pd.get(4, dilation_w);
    stride_w = pd.get(5, 0);
    stride_h = pd.get(6, stride_w);
    pad_w = pd.get(7, 0);
    pad_h = pd.get(8, pad_w);
    bias_term = pd.get(9, 0);
    weight_data_size = pd.get(10, 0);
    group = pd.get(11, 0);
    num_input = pd.get(12, 0);
}

int ConvolutionParams::load_weights(const ModelBin& mb, Mat& weight_data, Mat& bias_data) const {
    weight_data = mb.load(weight_data_size, 0, 0);
    if (weight_data.empty()) return -100;
    if (bias_term != 0) {
        bias_data = mb.load(num_output, 1, 0);
        if (bias_data.empty()) return -100;
    }
    return 0;
}

int ConvolutionParams::make_padded(const Mat& bottom, Mat& padded, const Option& opt) const {
    padded = bottom;
    if (pad_w > 0 || pad_h > 0) {
        copy_make_border(bottom, padded, pad_h, pad_h, pad_w, pad_w, 0, 0.0f,
                         opt.workspace_allocator, 1);
    } else if (pad_w == keep_size && pad_h == keep_size) {
        const int w = bottom.shape.w;
        const int h = bottom.shape.h;
        const int64_t wpad = kernel_extent_w() + (int64_t{w} - 1) / stride_w * stride_w - w;
        const int64_t hpad = kernel_extent_h() + (int64_t{h} - 1) / stride_h * stride_h - h;
        if (wpad > 0 || hpad > 0) {
            // The extents are ints and the rest is not positive, so the margins are ints too. The
            // larger half is at the bottom and on the right.
            const int top = static_cast<int>(hpad / 2);
            const int left = static_cast<int>(wpad / 2);
            copy_make_border(bottom, padded, top, static_cast<int>(hpad) - top, left,
                             static_cast<int>(wpad) - left, 0, 0.0f, opt.workspace_allocator, 1);
        }
    }
    return padded.empty() ? -100 : 0;
}

int ConvolutionData::load(const ParamDict& pd, const ModelBin& mb) {
    params.read(pd);
    const int result = params.load_weights(mb, weight_data, bias_data);
    loaded = result == 0;
    return result;
}

Mat ConvolutionData::weights(int64_t kernels) const {
    // Weights shorter than a single kernel belong to another operator. The test also bounds every
    // table of taps by the size of the weights.
    const int64_t taps = params.kernel_taps();
    if (taps > weight_data.shape.total() || kernels > INT_MAX) return Mat();
    return extended_with_zeros(weight_data, kernels * taps);
}

bool TapOffsets::build(int kernel_w, int kernel_h, int dilation_w, int dilation_h, int64_t row) {
    taps = int64_t{kernel_w} * kernel_h;
    if (!offsets.resize(taps)) return false;
    int64_t k = 0;
    for (int ky = 0; ky < kernel_h; ++ky) {
        for (int kx = 0; kx < kernel_w; ++kx) {
            offsets[k++] = int64_t{ky} * dilation_h * row + int64_t{kx} * dilation_w;
        }
    }
    return true;
}

}  // namespace TarnoCPU
