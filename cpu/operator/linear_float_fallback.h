#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// x * alpha + beta, rounded twice. In place, any layout.
/// Parameters: 0 `alpha` (float, 0), 1 `beta` (float, 0).
class Linear_Float_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Linear_Float_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    float alpha = 0.0f;
    float beta = 0.0f;
};

}  // namespace TarnoCPU
