#include "cpu/operator_x86/depthwise_convolution_3x3.h"

#include <algorithm>

#include "cpu/transform.h"

namespace TarnoCPU {
namespace {

void pack(const ConvolutionParams& params, const Mat& weight_data, Mat& packed) {
    transform_nhw_to_n4hw4(weight_data, packed, params.num_output, 3, 3);
}

// The walk over plane `g` where its tiles stick out of it, or its taps out of the block. A tile
// that runs over the end of a row leaves what it computes there at the start of the next row,
// unless that is still to come; later planes write over what runs into them.
void convolve_guarded(const Mat& bordered, Mat& top, int64_t g, const ReadableFloats& weights,
                      const float* bias, const DepthwiseBlocking& blocking) {
    const ReadableFloats in(bordered);
    const WritableFloats out(top);
    const int64_t unit = blocking.unit, stride = blocking.stride;
    const int64_t row = top.shape.w;
    const int64_t step = unit * blocking.columns;
    const int64_t block = blocking.block != 0 ? unit * blocking.block : row;
    for (int64_t start = 0; start < row; start += block) {
        for (int64_t tile_y = 0; tile_y < top.shape.h; tile_y += blocking.rows) {
            for (int64_t tile_x = start; tile_x < std::min(row, start + block); tile_x += step) {
                for (int64_t i = 0; i < blocking.rows * step; ++i) {
                    const int64_t y = tile_y + i / step, x = tile_x + i % step;
                    const int64_t lane = i % unit;
                    const int64_t from = (g * bordered.shape.h + y * stride) * bordered.shape.w +
                                         (x - lane) * stride + lane;
                    float sum = 0.0f;
                    for (int64_t tap = 0; tap < 9; ++tap) {
                        sum += in[from + tap / 3 * bordered.shape.w + tap % 3 * unit] *
                               weights[(g * 9 + tap) * unit + lane];
                    }
                    out.write((g * top.shape.h + y) * row + x, sum + bias[lane]);
                }
            }
        }
    }
}

}  // namespace

DepthwiseConvolution3x3::DepthwiseConvolution3x3(TensorShape::Layout layout)
    : DirectConvolution(layout == TensorShape::C4HW4 ? &pack : nullptr), layout(layout) {}

bool DepthwiseConvolution3x3::check_forward(const TensorShape& shape) {
    if (shape.elem_size != 4 || shape.layout != layout || params.group <= 0) return false;
    const int64_t channels = int64_t{shape.c} * (layout == TensorShape::C4HW4 ? 4 : 1);
    if (channels % params.group != 0 || params.num_output % params.group != 0) return false;
    // Padding that keeps the size divides by the stride of the parameters.
    const bool keeps_size = params.pad_w == ConvolutionParams::keep_size &&
                            params.pad_h == ConvolutionParams::keep_size;
    return layout == TensorShape::C4HW4 || !keeps_size || params.computable();
}

int DepthwiseConvolution3x3::make_bordered(const Mat& bottom, Mat& bordered,
                                           const Option& opt) const {
    if (layout != TensorShape::C4HW4) return params.make_padded(bottom, bordered, opt);
    copy_make_border(bottom, bordered, 1, 1, 4, 4, 0, 0.0f, opt.workspace_allocator, 1);
    return bordered.empty() ? -100 : 0;
}

int DepthwiseConvolution3x3::convolve(const Mat& bottom, Mat& top, const Option& opt,
                                      const DepthwiseBlocking& blocking) const {
    if (!ready_for(bottom)) return -100;
    Mat bordered;
    if (make_bordered(bottom, bordered, opt) != 0) return -100;
    const int unit = blocking.unit, stride = blocking.stride;
    if (!make_top(bottom, params.num_output / unit, stride, top, opt)) return -100;

    const ReadableFloats weights(kernel_weights());
    const ReadableFloats numbers = bias();
    const int64_t row = top.shape.w, in_row = bordered.shape.w;
    const int64_t plane = row * top.shape.h, in_plane = in_row * bordered.shape.h;
    const bool divides = top.shape.h % blocking.rows == 0 && row % (unit * blocking.columns) == 0;
    // Of the last float that a plane's walk reads.
    const int64_t reach = (int64_t{top.shape.h - 1} * stride + 2) * in_row + (row - unit) * stride +
                          3 * unit - 1 + blocking.overread;
    for (int64_t g = 0; g < top.shape.c; ++g) {
        float bias[4];
        for (int lane = 0; lane < 4; ++lane)
            bias[lane] = params.bias_term != 0 ? numbers[g * unit + lane] : -0.0f;
        if (divides && g * in_plane + reach < bordered.shape.total() &&
            (g + 1) * 9 * unit <= weights.count) {
            blocking.kernel({bordered.ptr<float>() + g * in_plane, in_row,
                             weights.data + g * 9 * unit, bias, top.ptr<float>() + g * plane,
                             top.shape.h, row});
        } else {
            convolve_guarded(bordered, top, g, weights, bias, blocking);
        }
    }
    return 0;
}

}  // namespace TarnoCPU
