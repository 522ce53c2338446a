#pragma once

#include "cpu/operator_x86/convolution_line3.h"

namespace TarnoCPU {

/// Three rows of one tap; height comes first in the name.
class Convolution_3x1s1_Float_SSE_M1 : public ConvolutionLine3 {
public:
    Convolution_3x1s1_Float_SSE_M1() : ConvolutionLine3(Line::Down) {}
    std::string name() const override { return "Convolution_3x1s1_Float_SSE_M1"; }
};

}  // namespace TarnoCPU
