#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Transposed convolution.
class Deconvolution : public SISOLayer {};

}  // namespace TarnoCPU
