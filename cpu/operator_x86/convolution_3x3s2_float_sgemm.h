#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// 3x3 taps at stride 2.
class Convolution_3x3s2_Float_SGEMM : public SgemmConvolution {
public:
    Convolution_3x3s2_Float_SGEMM() : SgemmConvolution({3, 3, 2, SgemmKernel::Size::Half}) {}
    std::string name() const override { return "Convolution_3x3s2_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
