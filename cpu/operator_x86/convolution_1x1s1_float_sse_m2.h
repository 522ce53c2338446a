#pragma once

#include "cpu/operator_x86/convolution_1x1_tile.h"

namespace TarnoCPU {

/// Four output channels at a time, in memory. Channels, rows and columns of the bottom in fours.
class Convolution_1x1s1_Float_SSE_M2 : public TileConvolution1x1 {
public:
    std::string name() const override { return "Convolution_1x1s1_Float_SSE_M2"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
