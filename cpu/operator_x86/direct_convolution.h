// The ground of the hand-blocked convolutions: what they keep from `load` and how a run begins.
#pragma once

#include "cpu/operator.h"
#include "cpu/operator/convolution_params.h"
#include "cpu/operator_x86/guarded_floats.h"

namespace TarnoCPU {

class DirectConvolution : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;

protected:
    /// Writes the packed form of `weight_data` to `packed`, which has the same size and is zero.
    using Packing = void (*)(const ConvolutionParams& params, const Mat& weight_data, Mat& packed);

    /// With a null `packing` the kernel reads the weights as they are stored.
    explicit DirectConvolution(Packing packing) : packing(packing) {}

    /// Whether there is something to compute.
    bool ready_for(const Mat& bottom) const {
        return loaded && !bottom.empty() && bottom.shape.dims() > 0;
    }

    /// `top` becomes bottom's shape with `channels`, rows and columns divided by `stride`, from
    /// `opt.blob_allocator`. A block that fits already stays, with its contents. False when the
    /// result is empty.
    static bool make_top(const Mat& bottom, int channels, int stride, Mat& top, const Option& opt);

    /// The weights in the form that the kernel reads.
    const Mat& kernel_weights() const { return packing != nullptr ? packed : weight_data; }

    /// Without a bias there is no block, and each number reads as 0.
    ReadableFloats bias() const { return ReadableFloats(bias_data); }

    ConvolutionParams params;
    Mat weight_data;
    Mat packed;
    Mat bias_data;

private:
    int take_weights(const ModelBin& mb);

    Packing packing;
    bool loaded = false;
};

}  // namespace TarnoCPU
