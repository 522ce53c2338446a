#pragma once

#include "cpu/operator_x86/full_connection_row.h"

namespace TarnoCPU {

/// Dense layer as a product of the weights, num_output x num_input, and one column of inputs.
/// Parameters and the top: full_connection_row.h.
class FullConnection_Float_SGEMM : public FullConnectionRow {
public:
    std::string name() const override { return "FullConnection_Float_SGEMM"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
