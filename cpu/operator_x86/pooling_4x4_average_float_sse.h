#pragma once

#include "cpu/operator_x86/fixed_window_pooling.h"

namespace TarnoCPU {

/// Average of windows of 4 x 4 at step 4, whatever `pooling_type` says; the last h % 4 rows and
/// w % 4 columns of the bottom are not read. Parameters and the top: fixed_window_pooling.h.
class Pooling_4x4_Average_Float_SSE : public FixedWindowPooling {
public:
    std::string name() const override { return "Pooling_4x4_Average_Float_SSE"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
