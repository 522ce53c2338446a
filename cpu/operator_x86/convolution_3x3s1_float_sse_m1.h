#pragma once

#include "cpu/operator_x86/convolution_3x3_family.h"

namespace TarnoCPU {

/// Pixels in the lanes: 1 output channel, 4 rows x 4 columns a step.
class Convolution_3x3s1_Float_SSE_M1 : public Convolution3x3 {
public:
    Convolution_3x3s1_Float_SSE_M1();
    std::string name() const override { return "Convolution_3x3s1_Float_SSE_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
