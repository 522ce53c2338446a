#pragma once

#include "cpu/operator.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

/// Convolution of any kernel, stride and dilation, as plain sums in the order input channel, ky, kx
/// behind the bias. Parameters: `ConvolutionParams`; `group` is not applied.
///
/// top[num_output][h / stride_h][w / stride_w] of the bottom's h and w: the padding is taken to
/// keep the size. Where it does not, windows run on into the next row and the next channel.
class Convolution_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Convolution_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    ConvolutionData data;
};

}  // namespace TarnoCPU
