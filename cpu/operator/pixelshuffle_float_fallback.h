#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Depth to space and back. Parameters: 0 `scale` (float, 0).
///
/// `scale` of at least 1, with r = (int)scale: top[c / (r * r)][h * r][w * r], where channel
/// (o * r + ry) * r + rx of the bottom fills the places y * r + ry, x * r + rx of channel o.
/// Below 1 the other way round with r = (int)(1 / scale): top[c * r * r][h / r][w / r].
/// Sizes that do not divide give -100.
class PixelShuffle_Float_Fallback : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "PixelShuffle_Float_Fallback"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    float scale = 0.0f;
};

}  // namespace TarnoCPU
