#include "cpu/operator_x86/convolution_3x3_family.h"

#include <algorithm>
#include <climits>

#include "cpu/operator_x86/convolution_3x3_walk.h"
#include "cpu/operator_x86/interleave.h"
#include "cpu/quantitation.h"
#include "cpu/transform.h"

namespace TarnoCPU {
namespace {

using Weights = Convolution3x3Weights;

template <void (*Helper)(const Mat&, Mat&, int, int, int, int)>
void pack(const ConvolutionParams& params, const Mat& weight_data, Mat& packed) {
    Helper(weight_data, packed, params.num_output, params.num_input, 3, 3);
}

void (*packing_of(Weights weights))(const ConvolutionParams&, const Mat&, Mat&) {
    switch (weights) {
        case Weights::NC4HW4:
            return &pack<transform_nchw_to_nc4hw4>;
        case Weights::N4CHW4:
            return &pack<transform_nchw_to_n4chw4>;
        case Weights::N4C4HW44:
            return &pack<transform_nchw_to_n4c4hw44>;
        default:
            return nullptr;
    }
}

Mat in_blocks_of_four(const Mat& planes, const Option& opt) {
    const TensorShape& shape = planes.shape;
    if (shape.c < 4 || shape.w > INT_MAX / 4) return Mat();
    Mat blocks(TensorShape(TensorShape::C4HW4, shape.c / 4, shape.h, shape.w * 4, sizeof(float)),
               opt.workspace_allocator);
    if (blocks.empty()) return blocks;
    const int64_t plane = int64_t{shape.h} * shape.w;
    for (int64_t b = 0; b < blocks.shape.c; ++b)
        interleave(planes.ptr<float>() + 4 * b * plane, plane, blocks.ptr<float>() + 4 * b * plane);
    return blocks;
}

}  // namespace

Convolution3x3::Convolution3x3(const Convolution3x3Blocking& blocking)
    : DirectConvolution(packing_of(blocking.weights)), blocking(blocking) {}

Mat Convolution3x3::make_bordered(const Mat& bottom, const Option& opt) const {
    int top = params.pad_h, bottom_rows = params.pad_h;
    int64_t left = params.pad_w, right = params.pad_w;
    if (blocking.border == Convolution3x3Border::TopLeftWhenEven) {
        top = bottom.shape.h % 2 == 0 ? 1 : 0;
        left = bottom.shape.w % 2 == 0 ? 1 : 0;
        bottom_rows = 0;
        right = 0;
    }
    if (blocks()) {
        left *= 4;
        right *= 4;
    }
    Mat bordered;
    // A border that cuts leaves the taps without the pixels that top's size promises.
    if (left < 0 || left > INT_MAX || top < 0) return bordered;
    copy_make_border(bottom, bordered, top, bottom_rows, static_cast<int>(left),
                     static_cast<int>(right), 0, 0.0f, opt.workspace_allocator, 1);
    return bordered;
}

TensorShape Convolution3x3::top_shape(const TensorShape& bottom) const {
    const int pixel = blocks() ? 4 : 1;
    TensorShape shape = bottom;
    shape.c = params.num_output / pixel;
    if (blocking.stride == 2) {
        shape.h /= 2;
        shape.w = shape.w / pixel / 2 * pixel;
    } else {
        if (params.pad_h == 0) shape.h -= 2;
        if (params.pad_w == 0) shape.w -= 2 * pixel;
    }
    return shape;
}

void Convolution3x3::fill_with_bias(int64_t output, Mat& top) const {
    const int64_t size = int64_t{top.shape.h} * top.shape.w;
    if (blocks()) {
        float* block = top.ptr<float>() + output / 4 * size;
        float lanes[4];
        for (int c = 0; c < 4; ++c)
            lanes[c] = bias()[output + c];
        for (int64_t i = 0; i < size; ++i)
            block[i] = lanes[i % 4];
        return;
    }
    const int64_t end = std::min<int64_t>(output + blocking.outputs, top.shape.c);
    for (int64_t p = output; p < end; ++p)
        std::fill_n(top.ptr<float>() + p * size, size, bias()[p]);
}

int Convolution3x3::convolve(const Mat& bottom, Mat& top, const Option& opt) const {
    const Mat source = bottom;  // top may be bottom
    if (!ready_for(source)) return -100;
    Mat input = make_bordered(source, opt);
    if (input.empty()) return -100;

    const TensorShape shape = top_shape(source.shape);
    if (shape.dims() == 0) return -100;
    // A top that still shares bottom's block gets one of its own: the input is read while it is
    // written.
    if (top.data == source.data) top.release();
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;
    if (blocking.weights == Weights::NC4HW4) input = in_blocks_of_four(input, opt);
    if (input.empty()) return -100;

    // Stored weights are those of the channels that are there; packed ones were laid out before.
    const bool stored = blocking.weights == Weights::AsStored;
    const Convolution3x3Walk walk(blocking, input, kernel_weights(),
                                  stored ? source.shape.c : params.num_input, top);
    const bool inside = walk.stays_inside();
    const int64_t outputs = blocks() ? int64_t{shape.c} * 4 : shape.c;
    for (int64_t output = 0; output < outputs; output += blocking.outputs) {
        fill_with_bias(output, top);
        if (inside) {
            walk.run_kernel(output);
        } else {
            walk.run_guarded(output);
        }
    }
    return 0;
}

}  // namespace TarnoCPU
