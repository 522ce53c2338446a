#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Hyperbolic tangent as (p - e) / (p + e) with e = e^-x and p = 1 / e. In place, any layout. No
/// parameters. NaN where e or p is infinite, that is beyond about 88.72 on both sides: there is no
/// clamp, and the faster forms are compared with this one.
class Tanh_Float_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Tanh_Float_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
