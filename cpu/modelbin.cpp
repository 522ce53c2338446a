#include "cpu/modelbin.h"

#include <cstring>

namespace TarnoCPU {
namespace {

Mat copy_floats(int count, const float* source) {
    Mat result;
    if (count <= 0) {
        result.shape = TensorShape(TensorShape::FLAT, 1, 1, 0, 4);
        return result;
    }
    result.create(TensorShape(TensorShape::FLAT, 1, 1, count, 4), nullptr);
    if (!result.empty() && source != nullptr) {
        std::memcpy(result.data, source, static_cast<size_t>(count) * sizeof(float));
    }
    return result;
}

}  // namespace

ModelBin::~ModelBin() = default;

ModelBinFromTarnoWeightBias::ModelBinFromTarnoWeightBias(const float* weights, const float* bias)
    : weights(weights), bias(bias) {}

Mat ModelBinFromTarnoWeightBias::load(int count, int type, int /*index*/) const {
    return copy_floats(count, type == 0 ? weights : type == 1 ? bias : nullptr);
}

ModelBinMultiFromTarnoWeightBias::ModelBinMultiFromTarnoWeightBias(const float** weights,
                                                                   const float** bias)
    : weights(weights), bias(bias) {}

Mat ModelBinMultiFromTarnoWeightBias::load(int count, int type, int index) const {
    const float** arrays = type == 0 ? weights : type == 1 ? bias : nullptr;
    return copy_floats(count, arrays != nullptr && count > 0 ? arrays[index] : nullptr);
}

ModelBinFromTarnoBatchnorm::ModelBinFromTarnoBatchnorm(const float* first, const float* second,
                                                       const float* third, const float* fourth)
    : arrays{first, second, third, fourth} {}

Mat ModelBinFromTarnoBatchnorm::load(int count, int type, int /*index*/) const {
    return copy_floats(count, type >= 0 && type < 4 ? arrays[type] : nullptr);
}

}  // namespace TarnoCPU
