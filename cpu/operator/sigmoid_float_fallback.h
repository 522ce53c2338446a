#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// 1 / (e^-x + 1). In place, any layout. No parameters.
class Sigmoid_Float_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Sigmoid_Float_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
