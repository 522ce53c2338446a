// What the convolutions have in common: parameters, weights, padding and the places of the taps.
#pragma once

#include <climits>
#include <cstdint>

#include "cpu/mat.h"
#include "cpu/modelbin.h"
#include "cpu/operator/small_array.h"
#include "cpu/option.h"
#include "cpu/paramdict.h"

namespace TarnoCPU {

/// The parameter block of every convolution and deconvolution, named by its ids.
///
/// Weights are row-major floats, [output channel][input channel][ky][kx], with groups
/// [group][output channel in group][input channel in group][ky][kx]; deconvolutions use the same
/// order.
struct ConvolutionParams {
    /// Padding that keeps the size: set in both directions, and only by a `ParamDict` made by hand,
    /// since the model format has no negative padding.
    static constexpr int keep_size = -233;

    int num_output = 0;        ///< 0: output channels
    int kernel_w = 0;          ///< 1
    int kernel_h = 0;          ///< 2, default `kernel_w`
    int dilation_w = 0;        ///< 3
    int dilation_h = 0;        ///< 4, default `dilation_w`
    int stride_w = 0;          ///< 5
    int stride_h = 0;          ///< 6, default `stride_w`
    int pad_w = 0;             ///< 7: left and right, or `keep_size`
    int pad_h = 0;             ///< 8: top and bottom, or `keep_size`, default `pad_w`
    int bias_term = 0;         ///< 9: not 0 when there is a bias
    int weight_data_size = 0;  ///< 10: number of floats
    int group = 0;             ///< 11
    int num_input = 0;         ///< 12: input channels

    /// Reads the ids 0 to 12.
    void read(const ParamDict& pd);

    /// Takes `weight_data_size` floats of weights and, with a bias, `num_output` floats of it.
    /// 0 on success, -100 when one of them is empty.
    int load_weights(const ModelBin& mb, Mat& weight_data, Mat& bias_data) const;

    /// Elements that a dilated kernel spans in a row and in a column.
    int64_t kernel_extent_w() const { return (int64_t{kernel_w} - 1) * dilation_w + 1; }
    int64_t kernel_extent_h() const { return (int64_t{kernel_h} - 1) * dilation_h + 1; }
    int64_t kernel_taps() const { return int64_t{kernel_w} * kernel_h; }

    /// Whether `forward` can compute with these numbers at all: positive kernel, stride and output
    /// channels, extents that are sizes. The defaults of the strides are 0 and fail here.
    bool computable() const {
        return num_output > 0 && kernel_w > 0 && kernel_h > 0 && stride_w > 0 && stride_h > 0 &&
               dilation_w >= 0 && dilation_h >= 0 && kernel_extent_w() <= INT_MAX &&
               kernel_extent_h() <= INT_MAX;
    }

    /// `padded` becomes `bottom` with its border of zeros, from `opt.workspace_allocator`, or
    /// shares `bottom` when there is none. 0 on success, -100 when the result is empty. Only for
    /// parameters that are `computable`.
    int make_padded(const Mat& bottom, Mat& padded, const Option& opt) const;
};

/// What a convolution on unpacked weights keeps from its `load`.
struct ConvolutionData {
    ConvolutionParams params;
    Mat weight_data;
    Mat bias_data;
    bool loaded = false;

    /// 0 on success, -100 on failure.
    int load(const ParamDict& pd, const ModelBin& mb);

    /// Whether there is something to compute, with these parameters and on a bottom like this.
    bool ready_for(const Mat& bottom) const {
        return loaded && params.computable() && !bottom.empty() && bottom.shape.dims() > 0;
    }

    float bias(int64_t p) const { return params.bias_term != 0 ? bias_data.ptr<float>()[p] : 0.0f; }

    /// The weights when they hold `kernels` kernels, else a copy with zeros behind it. Empty when
    /// there is no memory, and when they do not hold even one kernel.
    Mat weights(int64_t kernels) const;
};

/// Where the taps of a kernel lie behind its first one, in elements: tap [ky][kx] at index
/// ky * kernel_w + kx. On the stack up to `inline_taps`, so that usual kernels take nothing from
/// the heap.
class TapOffsets {
public:
    static constexpr int64_t inline_taps = 128;

    /// For a plane whose rows are `row` elements long. False when there is no memory.
    bool build(int kernel_w, int kernel_h, int dilation_w, int dilation_h, int64_t row);
    bool build(const ConvolutionParams& params, int64_t row) {
        return build(params.kernel_w, params.kernel_h, params.dilation_w, params.dilation_h, row);
    }

    int64_t count() const { return taps; }
    int64_t operator[](int64_t k) const { return offsets[k]; }
    const int64_t* data() const { return offsets.data(); }
    /// The offset of the last tap, which no other exceeds.
    int64_t largest() const { return offsets[taps - 1]; }

private:
    SmallArray<int64_t, inline_taps> offsets;
    int64_t taps = 0;
};

}  // namespace TarnoCPU
