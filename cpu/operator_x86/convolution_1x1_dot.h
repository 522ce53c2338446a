// 1x1 convolutions by dot products: four input channels lie side by side, and so do their weights.
//
//   top[p][y][x] = bias[p] + sum over blocks b of the sum of the four lanes of in[b][y][x] *
//   w[p][b]
#pragma once

#include <cstdint>

#include "cpu/operator_x86/direct_convolution.h"

namespace TarnoCPU {

/// The share of one input block in one output channel.
struct DotProduct {
    const float* in;       ///< [rows][columns][4], aligned to 16
    float* out;            ///< [rows][columns], added to
    const float* weights;  ///< four
    int64_t rows;
    int64_t columns;
};

class DotConvolution1x1 : public DirectConvolution {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    /// Float, `CHW`, input channels in fours.
    bool check_forward(const TensorShape& shape) override;

protected:
    DotConvolution1x1();

    /// The run behind the check. 0 or -100.
    int convolve(const Mat& bottom, Mat& top, const Option& opt,
                 void (*kernel)(DotProduct product)) const;
};

}  // namespace TarnoCPU
