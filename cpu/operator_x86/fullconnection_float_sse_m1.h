#pragma once

#include "cpu/operator_x86/full_connection_row.h"

namespace TarnoCPU {

/// Dense layer, four outputs by four inputs a step. The last num_input % 4 inputs are not used:
/// models are made with counts that 4 divides. Parameters and the top: full_connection_row.h.
class FullConnection_Float_SSE_M1 : public FullConnectionRow {
public:
    std::string name() const override { return "FullConnection_Float_SSE_M1"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
};

}  // namespace TarnoCPU
