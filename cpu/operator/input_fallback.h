#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// The operator of an input layer: checks the layout and lets the tensor pass.
class Input_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Input_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
