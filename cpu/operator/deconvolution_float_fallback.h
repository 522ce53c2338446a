#pragma once

#include "cpu/operator.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

/// Transposed convolution of any kernel, stride and dilation. Parameters: `ConvolutionParams`;
/// `group` is not applied.
///
/// top[num_output][stride_h * h + 2 - 2 * pad_h][stride_w * w + 2 - 2 * pad_w] of the bottom's h
/// and w. The 2 stands for every kernel; one that spans more than the stride and 2 runs on into the
/// next row. The top's block comes from the plain heap, whatever `Option` says.
class Deconvolution_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Deconvolution_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    ConvolutionData data;
};

}  // namespace TarnoCPU
