#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// Depthwise 3x3 taps at stride 1, a row of weights times a channel-major col.
class Depthewise_Convolution_3x3s1_Float_SGEMM : public DepthwiseSgemmConvolution {
public:
    Depthewise_Convolution_3x3s1_Float_SGEMM()
        : DepthwiseSgemmConvolution({3, 3, 1, SgemmKernel::Size::LessWithoutPad}) {}
    std::string name() const override { return "Depthewise_Convolution_3x3s1_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
