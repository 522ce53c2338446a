#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// x where x >= 0, slope * x below; a NaN stays. In place, any layout.
/// Parameters: 0 `slope` (float, 0).
class ReLU_Float_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "ReLU_Float_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    float slope = 0.0f;
};

}  // namespace TarnoCPU
