#pragma once

#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

/// Dot products of eight input channels a vector, behind a scratch with eight channels side by
/// side. Any number of pixels; input channels in eights.
///
/// top[p][i] = sum over q of bottom[q][i] * w[p][q], plus the bias
class Convolution_1x1s1_Float_C8HW8_AVX2_M1 : public DirectConvolution {
public:
    Convolution_1x1s1_Float_C8HW8_AVX2_M1() : DirectConvolution(nullptr) {}
    std::string name() const override { return "Convolution_1x1s1_Float_C8HW8_AVX2_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
