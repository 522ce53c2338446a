#pragma once

#include "cpu/layer.h"

namespace TarnoCPU {

/// Flattens its first bottom to one row of dims[dim_count - 1] elements, which must be all of the
/// bottom's. A `dim_count` other than 2, 3 and 4 keeps `w`, without a test.
class TensorReshape : public Layer {
public:
    int dims[4] = {0, 0, 0, 0};
    int dim_count = 0;  ///< how many dimensions of the model's shape record are not 0

    using Layer::forward;
    int forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                const Option& opt) override;
    std::string operator_name() override { return "nullptr"; }
};

}  // namespace TarnoCPU
