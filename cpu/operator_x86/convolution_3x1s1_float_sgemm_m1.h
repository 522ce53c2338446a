#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// Three rows of one column of taps at stride 1, channel-major.
class Convolution_3x1s1_Float_SGEMM_M1 : public SgemmConvolution {
public:
    Convolution_3x1s1_Float_SGEMM_M1() : SgemmConvolution({3, 1, 1, SgemmKernel::Size::AsBottom}) {}
    std::string name() const override { return "Convolution_3x1s1_Float_SGEMM_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
