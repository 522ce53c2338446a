#pragma once

#include "cpu/operator_x86/convolution_1x1_dot.h"

namespace TarnoCPU {

/// Dot products of one pixel a step, top in memory. Input channels in fours.
class Convolution_1x1s1_Float_SSE_M6 : public DotConvolution1x1 {
public:
    std::string name() const override { return "Convolution_1x1s1_Float_SSE_M6"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
