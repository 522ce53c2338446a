#pragma once

#include "cpu/operator_x86/convolution_line3.h"

namespace TarnoCPU {

/// One row of three taps; height comes first in the name.
class Convolution_1x3s1_Float_SSE_M1 : public ConvolutionLine3 {
public:
    Convolution_1x3s1_Float_SSE_M1() : ConvolutionLine3(Line::Right) {}
    std::string name() const override { return "Convolution_1x3s1_Float_SSE_M1"; }
};

}  // namespace TarnoCPU
