#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Enlarges rows and columns of a tensor with four channels side by side by 2 or 4.
///
/// Parameters: 0 `scale` (float, 0); 1 `mode` (1): 0 nearest, 1 bilinear, for a scale of 2 alone;
/// 2 `align_corners` (0). What is not there raises the assertion "Not implemeted" and returns 0
/// with a top that nobody filled.
class Upsampling_Float_SSE_C4HW4 : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Upsampling_Float_SSE_C4HW4"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    float scale = 0.0f;
    int mode = 1;
    bool align_corners = false;
};

}  // namespace TarnoCPU
