#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// Depthwise 3x3 taps at stride 2, a pixel-major col times a column of weights.
class Depthewise_Convolution_3x3s2_Float_SGEMM : public DepthwiseSgemmConvolution {
public:
    Depthewise_Convolution_3x3s2_Float_SGEMM()
        : DepthwiseSgemmConvolution({3, 3, 2, SgemmKernel::Size::Half}) {}
    std::string name() const override { return "Depthewise_Convolution_3x3s2_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
