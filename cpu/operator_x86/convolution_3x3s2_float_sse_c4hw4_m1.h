#pragma once

#include "cpu/operator_x86/convolution_3x3_family.h"

namespace TarnoCPU {

/// Tensors in `C4HW4`: 1 block of four output channels, 1 pixel a step.
class Convolution_3x3s2_Float_SSE_C4HW4_M1 : public Convolution3x3 {
public:
    Convolution_3x3s2_Float_SSE_C4HW4_M1();
    std::string name() const override { return "Convolution_3x3s2_Float_SSE_C4HW4_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
