#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Transposed convolution per channel or per group of channels.
class DeconvolutionDepthWise : public SISOLayer {};

}  // namespace TarnoCPU
