#pragma once

#include "cpu/operator_x86/sgemm_convolution.h"

namespace TarnoCPU {

/// top = weights [num_output][bottom.c] * every second pixel of every second row of bottom.
class Convolution_1x1s2_Float_SGEMM : public SgemmConvolution {
public:
    Convolution_1x1s2_Float_SGEMM() : SgemmConvolution({1, 1, 2, SgemmKernel::Size::Half}) {}
    std::string name() const override { return "Convolution_1x1s2_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
