#pragma once

#include "cpu/operator_x86/depthwise_convolution_3x3.h"

namespace TarnoCPU {

/// One row of four columns a step at stride 2, a kernel row in the lanes.
class Depthewise_Convolution_3x3s2_Float_SSE_M2 : public DepthwiseConvolution3x3_CHW {
public:
    std::string name() const override { return "Depthewise_Convolution_3x3s2_Float_SSE_M2"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
