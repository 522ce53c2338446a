#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// 4x4 taps at stride 1. With a padding of 1 the taps at the bottom and on the right reach behind
/// the border.
class Convolution_4x4s1_Float_SGEMM : public SgemmConvolution {
public:
    Convolution_4x4s1_Float_SGEMM()
        : SgemmConvolution({4, 4, 1, SgemmKernel::Size::LessWithoutPad}) {}
    std::string name() const override { return "Convolution_4x4s1_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
