// Convolutions as one matrix product: the family behind the *_SGEMM classes.
//
//   channel-major   top [num_output][pixels] = weights [num_output][taps] * col [taps][pixels]
//   pixel-major     result [pixels][num_output] = col [pixels][taps] * weights [taps][num_output],
//                   then transposed into top
//   depthwise       the product of one channel's 9 weights with its col, channel by channel
//
// A class names its kernel, its size and its scratch allocator, and checks its bottom. Kernel and
// stride are those of the class; what the parameters say of them is not looked at. Allocators are
// part of the interface, odd as the choice may be: tables of memory use were made with them.
#pragma once

#include "cpu/operator.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

struct SgemmKernel {
    /// Height and width of top.
    enum class Size {
        AsBottom,        ///< those of bottom, whatever the padding
        LessWithoutPad,  ///< those of bottom, but kernel - 1 less in a direction without padding
        Half,            ///< half of bottom's, rounded down, whatever the padding
    };

    int height, width, stride;
    Size size;

    int taps() const { return height * width; }
};

/// What all members share: parameters and weights, the border, top's block, the bias behind the
/// product.
class SgemmOperator : public OperatorSISO {
public:
    bool check_forward(const TensorShape& shape) override;

protected:
    explicit SgemmOperator(const SgemmKernel& kernel) : kernel(kernel) {}

    /// Reads the parameters and takes weights and bias. 0, or -100 with no weights held.
    int load_arrays(const ParamDict& pd, const ModelBin& mb);
    /// Lengthens the weights with zeros to `rows` * `columns` numbers: how many there are is the
    /// model's word, how many are read is the kernel's. 0, or -100 with no weights held.
    int lengthen_weights(int64_t rows, int64_t columns);

    /// `bordered` becomes bottom with its border of zeros and `top` a block of `channels` channels.
    /// 0, or -100 when one of them is empty or `load` failed.
    int begin(const Mat& bottom, int channels, Mat& bordered, Mat& top, const Option& opt) const;
    /// Adds the bias to top. It is no part of the product: its place at the end of the sum is part
    /// of the result.
    void finish(Mat& top) const;

    const SgemmKernel kernel;
    ConvolutionParams params;
    Mat weight_data;
    Mat bias_data;
};

/// The channel-major members, 1x1 included.
class SgemmConvolution : public SgemmOperator {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;

protected:
    using SgemmOperator::SgemmOperator;

    /// top = weights * col, with `col` of the bordered bottom from `scratch`.
    int convolve(const Mat& bottom, Mat& top, const Option& opt, Allocator* scratch) const;
    /// 1x1: top = weights * bottom. Padding is made and not looked at.
    int convolve_bottom(const Mat& bottom, Mat& top, const Option& opt) const;
    /// 1x1 of stride 2: top = weights * every second pixel of bottom, from `scratch`. Padding is
    /// made and not looked at.
    int convolve_every_second(const Mat& bottom, Mat& top, const Option& opt,
                              Allocator* scratch) const;

private:
    int multiply(const Mat& col, int64_t taps, Mat& top) const;
};

/// The pixel-major members. The weights are held transposed, [taps][num_output].
class PixelMajorSgemmConvolution : public SgemmOperator {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;

protected:
    using SgemmOperator::SgemmOperator;

    /// `col` from `scratch`, the product before its transposition from `opt.workspace_allocator`.
    int convolve(const Mat& bottom, Mat& top, const Option& opt, Allocator* scratch) const;
};

/// The depthwise members: channel q of top is channel q of bottom with the q-th 9 weights. Groups
/// are checked for and otherwise not looked at; top has as many channels as bottom.
class DepthwiseSgemmConvolution : public SgemmOperator {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    /// Float in `CHW`, the channels of bottom and of top divisible by `group`.
    bool check_forward(const TensorShape& shape) override;

protected:
    using SgemmOperator::SgemmOperator;

    /// Weights times a channel-major `col`. Both forms have room for the `col` of all channels.
    int convolve_channel_major(const Mat& bottom, Mat& top, const Option& opt) const;
    /// A pixel-major `col` times weights.
    int convolve_pixel_major(const Mat& bottom, Mat& top, const Option& opt) const;
};

}  // namespace TarnoCPU
