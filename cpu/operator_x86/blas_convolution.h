// Convolutions of any kernel as one matrix product, pixel by pixel: the family behind the *_Blas
// classes.
//
//   result [pixels][num_output] = col [pixels][K + 1] * weight_bias [K + 1][num_output],
//   K = num_input * kernel_h * kernel_w, then transposed into top
//
// The last element of every row of `col` is 1, so that the last row of `weight_bias` is the bias;
// it is there, of zeros, without a bias too.
#pragma once

#include "cpu/operator.h"
#include "cpu/operator/convolution_params.h"

namespace TarnoCPU {

class BlasConvolution : public OperatorSISO {
public:
    bool check_forward(const TensorShape& shape) override;

protected:
    enum class Filters {
        AsStored,
        Reversed,  ///< element k of a filter at the place kernel_w * kernel_h - 1 - k
    };

    /// Reads the parameters and makes `weight_bias`. 0, or -100 with no weights held. 0 with no
    /// weights held, too, for parameters that no `forward` can compute with.
    int load_weights(const ParamDict& pd, const ModelBin& mb, Filters filters);

    bool loaded() const { return !weight_bias.empty(); }

    /// Fills `top`, which has its block, with the product over `bordered`; scratch comes from
    /// `opt.workspace_allocator`. 0 or -100.
    int multiply(const Mat& bordered, int stride_h, int stride_w, Mat& top,
                 const Option& opt) const;

    ConvolutionParams params;

private:
    Mat weight_bias;  ///< {FLAT, 1, K + 1, num_output}
};

}  // namespace TarnoCPU
