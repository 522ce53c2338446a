#pragma once

#include "cpu/operator.h"

namespace TarnoCPU {

/// Product, sum or maximum of two or more tensors, in any layout. The top has the shape of the
/// first bottom. Parameters: 0 `op_type` (0): 0 product, 1 sum, 2 maximum; any other value leaves
/// the top as it was allocated and returns 0.
class Eltwise_Float_Fallback : public OperatorMIMO {
public:
    /// Factors of a weighted sum, one for each bottom. `load` empties it, and an empty one means a
    /// plain sum; no model can fill it.
    Mat coeffs;

    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Eltwise_Float_Fallback"; }
    int forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                const Option& opt) override;
    bool check_forward(const std::vector<TensorShape>& shapes) override;

private:
    int op_type = 0;
};

}  // namespace TarnoCPU
