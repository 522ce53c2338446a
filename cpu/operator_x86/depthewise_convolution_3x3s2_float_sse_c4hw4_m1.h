#pragma once

#include "cpu/operator_x86/depthwise_convolution_3x3.h"

namespace TarnoCPU {

/// One pixel a step, at stride 2.
class Depthewise_Convolution_3x3s2_Float_SSE_C4HW4_M1 : public DepthwiseConvolution3x3_C4HW4 {
public:
    std::string name() const override { return "Depthewise_Convolution_3x3s2_Float_SSE_C4HW4_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
