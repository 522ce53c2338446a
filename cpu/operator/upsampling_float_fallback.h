#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Enlarges rows and columns by 2, 4 or 8: top[c][h * scale][w * scale].
///
/// Parameters: 0 `scale` (float, 0); 1 `mode` (1): 0 nearest, for a scale of 2 or 4, 1 bilinear;
/// 2 `align_corners` (0). What is not there - nearest by 8, another mode - raises the assertion
/// "Not implemeted" and returns 0 with a top that nobody filled.
class Upsampling_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Upsampling_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    float scale = 0.0f;
    int mode = 1;
    bool align_corners = false;
};

}  // namespace TarnoCPU
