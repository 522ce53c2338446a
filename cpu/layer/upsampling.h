#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Nearest or bilinear enlargement.
class Upsampling : public SISOLayer {};

}  // namespace TarnoCPU
