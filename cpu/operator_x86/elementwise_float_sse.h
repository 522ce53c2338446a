#pragma once

#include <vector>

#include "cpu/operator.h"

namespace TarnoCPU {

/// Product, sum or maximum of two or more tensors over their flat data, whatever their layout:
/// tops[0] = ((bottoms[0] op bottoms[1]) op bottoms[2]) ..., in the shape of the first. Where a
/// bottom is shorter than the first, 0 stands for what it lacks. Fewer than two bottoms give -100.
///
/// Parameters: 0 `op_type` (0): 0 product, 1 sum, 2 maximum. Any other leaves the top unwritten and
/// returns 0.
class Elementwise_Float_SSE : public OperatorMIMO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Elementwise_Float_SSE"; }
    int forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                const Option& opt) override;
    bool check_forward(const std::vector<TensorShape>& shapes) override;

private:
    int op_type = 0;
    Mat coeffs;  ///< a factor for each bottom of a sum; `load` empties it, so sums are plain
};

}  // namespace TarnoCPU
