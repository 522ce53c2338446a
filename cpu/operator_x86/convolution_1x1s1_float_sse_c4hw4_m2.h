#pragma once

#include "cpu/operator_x86/convolution_1x1_c4hw4.h"

namespace TarnoCPU {

/// One pixel at a time through all input blocks, with the accumulator in a register.
class Convolution_1x1s1_Float_SSE_C4HW4_M2 : public C4HW4Convolution1x1 {
public:
    std::string name() const override { return "Convolution_1x1s1_Float_SSE_C4HW4_M2"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
