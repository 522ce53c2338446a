#pragma once

#include "cpu/operator_x86/blas_convolution.h"

namespace TarnoCPU {

/// Transposed convolution: zeros between the pixels of bottom, then a convolution of stride 1 with
/// the reversed filters. top is bottom's size times the stride, whatever kernel and padding are.
/// Groups are not looked at. Parameters: those of `ConvolutionParams`.
class Deconvolution_Float_Blas : public BlasConvolution {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    std::string name() const override { return "Deconvolution_Float_Blas"; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override;

private:
    /// `spread` becomes bottom with stride - 1 zeros behind every pixel and row.
    bool insert_zeros(const Mat& bottom, Mat& spread, const Option& opt) const;
    /// Puts a border of zeros around `spread`, as the padding says. False when that is empty.
    bool put_border(const TensorShape& bottom, Mat& spread) const;
};

}  // namespace TarnoCPU
