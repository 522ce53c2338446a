#pragma once

#include "cpu/operator_x86/fixed_window_pooling.h"

namespace TarnoCPU {

/// Maximum (`pooling_type` 0) or average (1) of windows of 2 x 2 at step 2; a last odd row or
/// column of the bottom is not read. Any other type leaves the top unwritten and returns 0.
/// Parameters and the top: fixed_window_pooling.h.
class Pooling_2x2s2_Float_SSE : public FixedWindowPooling {
public:
    std::string name() const override { return "Pooling_2x2s2_Float_SSE"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
