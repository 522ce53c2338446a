#pragma once

#include "cpu/layer.h"

namespace TarnoCPU {

/// Joins its bottoms along one axis. `axis` counts from 0 over the dimensions of the first bottom
/// (`TensorShape::dims`): for three dimensions 0 is channels, 1 rows, 2 columns; for two dimensions
/// 0 is rows, 1 columns; for one dimension it is not looked at. Layout and element size of the top
/// are those of the first bottom. Any other axis leaves the top untouched and returns 0.
class Concat : public Layer {
public:
    int axis = 0;

    using Layer::forward;
    int forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                const Option& opt) override;
    std::string operator_name() override { return "nullptr"; }
};

}  // namespace TarnoCPU
