#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Softmax over the channels of a tensor of one row and one column, in place. No parameters. No
/// maximum is subtracted: from about 88.73 on a channel is NaN and, while no other is as large, all
/// others are 0.
class Softmax_Float_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Softmax_Float_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;
};

}  // namespace TarnoCPU
