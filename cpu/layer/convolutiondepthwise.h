#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Convolution per channel or per group of channels.
class ConvolutionDepthWise : public SISOLayer {};

}  // namespace TarnoCPU
