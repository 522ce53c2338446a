#pragma once

#include "cpu/operator_x86/blas_convolution.h"

namespace TarnoCPU {

/// Any kernel, stride and dilation; top is bottom's size divided by the stride, rounded down,
/// whatever kernel and padding are. Groups are not looked at.
/// Parameters: those of `ConvolutionParams`.
class Convolution_Float_Blas : public BlasConvolution {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Convolution_Float_Blas"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
