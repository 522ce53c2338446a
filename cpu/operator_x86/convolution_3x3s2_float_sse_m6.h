#pragma once

#include "cpu/operator_x86/convolution_3x3_family.h"

namespace TarnoCPU {

/// Input channels in the lanes, fused multiply-add: 1 output channel, 4 rows x 4 columns a step.
/// Output channels in fours, height and width even.
class Convolution_3x3s2_Float_SSE_M6 : public Convolution3x3 {
public:
    Convolution_3x3s2_Float_SSE_M6();
    std::string name() const override { return "Convolution_3x3s2_Float_SSE_M6"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
