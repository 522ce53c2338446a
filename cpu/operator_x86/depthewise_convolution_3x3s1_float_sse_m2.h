#pragma once

#include "cpu/operator_x86/depthwise_convolution_3x3.h"

namespace TarnoCPU {

/// Four rows of four columns a step, which read six rows of input.
class Depthewise_Convolution_3x3s1_Float_SSE_M2 : public DepthwiseConvolution3x3_CHW {
public:
    std::string name() const override { return "Depthewise_Convolution_3x3s1_Float_SSE_M2"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
