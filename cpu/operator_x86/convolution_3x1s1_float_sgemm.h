#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// Three rows of one column of taps at stride 1, pixel-major.
class Convolution_3x1s1_Float_SGEMM : public PixelMajorSgemmConvolution {
public:
    Convolution_3x1s1_Float_SGEMM()
        : PixelMajorSgemmConvolution({3, 1, 1, SgemmKernel::Size::AsBottom}) {}
    std::string name() const override { return "Convolution_3x1s1_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
