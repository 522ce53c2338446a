#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// One row of three columns of taps at stride 1, pixel-major.
class Convolution_1x3s1_Float_SGEMM : public PixelMajorSgemmConvolution {
public:
    Convolution_1x3s1_Float_SGEMM()
        : PixelMajorSgemmConvolution({1, 3, 1, SgemmKernel::Size::AsBottom}) {}
    std::string name() const override { return "Convolution_1x3s1_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
