#pragma once

#include "cpu/operator_x86/convolution_3x3_family.h"

namespace TarnoCPU {

/// Input channels in the lanes: 4 output channels, 2 rows x 2 columns a step. Output channels in
/// fours, height and width even.
class Convolution_3x3s1_Float_SSE_M8 : public Convolution3x3 {
public:
    Convolution_3x3s1_Float_SSE_M8();
    std::string name() const override { return "Convolution_3x3s1_Float_SSE_M8"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
