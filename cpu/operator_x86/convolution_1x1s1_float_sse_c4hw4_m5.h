#pragma once

#include "cpu/operator_x86/convolution_1x1_c4hw4.h"

namespace TarnoCPU {

/// The same code as M4 under a second name, which tuning tables hold.
class Convolution_1x1s1_Float_SSE_C4HW4_M5 : public C4HW4Convolution1x1 {
public:
    std::string name() const override { return "Convolution_1x1s1_Float_SSE_C4HW4_M5"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
