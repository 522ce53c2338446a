#pragma once

#include "cpu/operator_x86/relu_relayout.h"

namespace TarnoCPU {

/// min(max(x, 0), 6), then back to one channel after the other.
class ReLU6_Float_SSE_C4HW4_To_CHW : public ReluRelayout {
public:
    std::string name() const override { return "ReLU6_Float_SSE_C4HW4_To_CHW"; }
    int forward(Mat& bottom_top, const Option& opt) override;
};

}  // namespace TarnoCPU
