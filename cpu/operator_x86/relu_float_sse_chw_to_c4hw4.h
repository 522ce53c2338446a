#pragma once

#include "cpu/operator_x86/relu_relayout.h"

namespace TarnoCPU {

/// max(x, 0), then four channels side by side.
class ReLU_Float_SSE_CHW_To_C4HW4 : public ReluRelayout {
public:
    std::string name() const override { return "ReLU_Float_SSE_CHW_To_C4HW4"; }
    int forward(Mat& bottom_top, const Option& opt) override;
};

}  // namespace TarnoCPU
