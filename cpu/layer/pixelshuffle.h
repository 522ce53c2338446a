#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Depth to space, space to depth.
class PixelShuffle : public SISOLayer {};

}  // namespace TarnoCPU
