#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// 3x3 taps at stride 1. A padding of 2 gives the size of padding 1, from the top left of the
/// border.
class Convolution_3x3s1_Float_SGEMM : public SgemmConvolution {
public:
    Convolution_3x3s1_Float_SGEMM()
        : SgemmConvolution({3, 3, 1, SgemmKernel::Size::LessWithoutPad}) {}
    std::string name() const override { return "Convolution_3x3s1_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
