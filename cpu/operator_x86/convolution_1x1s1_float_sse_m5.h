#pragma once

#include "cpu/operator_x86/convolution_1x1_dot.h"

namespace TarnoCPU {

/// Dot products of 2x2 pixels a step, top in memory. Rows and columns in pairs, input channels in
/// fours.
class Convolution_1x1s1_Float_SSE_M5 : public DotConvolution1x1 {
public:
    std::string name() const override { return "Convolution_1x1s1_Float_SSE_M5"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
