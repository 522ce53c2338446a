#pragma once

#include "cpu/operator.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

/// Transposed convolution in groups: the bottom's channels and the output channels are cut into
/// `group` equal runs, and each run of outputs sees its run of inputs only. Parameters:
/// `ConvolutionParams`. Size of the top, rows and memory as in `Deconvolution_Float_Fallback`.
class DeconvolutionDepthwise_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "DeconvolutionDepthwise_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    ConvolutionData data;
};

}  // namespace TarnoCPU
