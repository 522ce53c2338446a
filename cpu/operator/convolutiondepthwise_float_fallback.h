#pragma once

#include "cpu/operator.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

/// Convolution in groups: the bottom's channels and the output channels are cut into `group` equal
/// runs, and each run of outputs sees its run of inputs only. With as many groups as channels on
/// both sides it is a depthwise convolution. Parameters: `ConvolutionParams`.
///
/// top[num_output][(h - extent_h) / stride_h + 1][(w - extent_w) / stride_w + 1] of the padded
/// bottom's h and w, with extent the span of the dilated kernel.
class ConvolutionDepthwise_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "ConvolutionDepthwise_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    ConvolutionData data;
};

}  // namespace TarnoCPU
