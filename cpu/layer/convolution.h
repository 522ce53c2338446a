#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Plain convolution.
class Convolution : public SISOLayer {};

}  // namespace TarnoCPU
