#pragma once

#include "cpu/operator_x86/depthwise_convolution_3x3.h"

namespace TarnoCPU {

/// One row of eight columns a step.
class Depthewise_Convolution_3x3s1_Float_AVX2_M1 : public DepthwiseConvolution3x3_CHW {
public:
    std::string name() const override { return "Depthewise_Convolution_3x3s1_Float_AVX2_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
