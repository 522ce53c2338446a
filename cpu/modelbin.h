// Weight arrays on their way to an operator.
#pragma once

#include "../platform/export.h"
#include "mat.h"

namespace TarnoCPU {

/// Hands out copies of float arrays. The arrays behind it must live until the operator's `load` has
/// returned, and must hold as many floats as are asked for.
class TN_API ModelBin {
public:
    virtual ~ModelBin();
    /// A fresh `Mat` of the shape {FLAT, 1, 1, count, 4, 0} with the first `count` floats of the
    /// array that `type` and `index` select. A `count` of 0 gives an empty `Mat`; an unknown `type`
    /// leaves the contents undefined.
    virtual Mat load(int count, int type, int index) const = 0;
};

/// `type` 0 is the weights, 1 the bias; `index` is not looked at.
class TN_API ModelBinFromTarnoWeightBias : public ModelBin {
public:
    ModelBinFromTarnoWeightBias(const float* weights, const float* bias);
    Mat load(int count, int type, int index) const override;

private:
    const float* weights;
    const float* bias;
};

/// `type` 0 is weights[index], 1 is bias[index].
class TN_API ModelBinMultiFromTarnoWeightBias : public ModelBin {
public:
    ModelBinMultiFromTarnoWeightBias(const float** weights, const float** bias);
    Mat load(int count, int type, int index) const override;

private:
    const float** weights;
    const float** bias;
};

/// `type` 0 to 3 are the four arrays in the order of the constructor; the operator reads them as
/// slope, mean, variance, bias.
class TN_API ModelBinFromTarnoBatchnorm : public ModelBin {
public:
    ModelBinFromTarnoBatchnorm(const float* first, const float* second, const float* third,
                               const float* fourth);
    Mat load(int count, int type, int index) const override;

private:
    const float* arrays[4];
};

}  // namespace TarnoCPU
