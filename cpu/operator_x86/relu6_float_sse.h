#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// min(max(x, 0), 6) in place, any layout; a NaN becomes 0, and so does -0.
/// Parameter 0 `slope` is accepted and not used: a leaky ReLU cannot run here.
class ReLU6_Float_SSE : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "ReLU6_Float_SSE"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
