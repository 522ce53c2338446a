#pragma once

#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

/// Every second pixel of every second row, of any size; an odd last row or column is not sampled.
///
/// top[p][y][x] = bias[p] + sum over q of bottom[q][2 * y][2 * x] * w[p][q],
/// top[num_output][h / 2][w / 2]
class Convolution_1x1s2_Float_SSE_M1 : public DirectConvolution {
public:
    Convolution_1x1s2_Float_SSE_M1() : DirectConvolution(nullptr) {}
    std::string name() const override { return "Convolution_1x1s2_Float_SSE_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
