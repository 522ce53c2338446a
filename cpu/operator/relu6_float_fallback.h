#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// x clamped to 0 .. 6; a NaN stays. In place, any layout. No parameters.
class ReLU6_Float_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "ReLU6_Float_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
