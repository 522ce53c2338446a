#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// x * scale + offset in place, with scale = slope / d and offset = bias - slope * mean / d,
/// d = sqrt(variance + eps). The index of scale and offset is the channel of a tensor of several
/// channels, the row of a single channel of several rows, and the column of a single row.
/// Parameters: 0 `channels` (0), 1 `eps` (float, 0). Weights of type 0 slope, 1 mean, 2 variance,
/// 3 bias.
class Batchnorm_Float_Fallback : public OperatorSISOInplace {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Batchnorm_Float_Fallback"; }
    int forward(Mat& bottom_top, const Option& opt) override;
    bool check_forward(const TensorShape& shape) override;

private:
    int channels = 0;
    float eps = 0.0f;
    Mat offset;
    Mat scale;
    bool loaded = false;
};

}  // namespace TarnoCPU
