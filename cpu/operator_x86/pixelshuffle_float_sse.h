#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Depth to space and back; see pixel_shuffle.h. The same loops as the reference class: there is no
/// vector form behind the name. Parameters: 0 `scale` (float, 0).
class PixelShuffle_Float_SSE : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "PixelShuffle_Float_SSE"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    float scale = 0.0f;
};

}  // namespace TarnoCPU
