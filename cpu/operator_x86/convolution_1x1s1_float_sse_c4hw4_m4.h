#pragma once

#include "cpu/operator_x86/convolution_1x1_c4hw4.h"

namespace TarnoCPU {

/// Sixteen pixels a step, top in memory, weights in registers. Columns in sixteens.
class Convolution_1x1s1_Float_SSE_C4HW4_M4 : public C4HW4Convolution1x1 {
public:
    std::string name() const override { return "Convolution_1x1s1_Float_SSE_C4HW4_M4"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
