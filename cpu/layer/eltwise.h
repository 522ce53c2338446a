#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Product or sum of tensors of one shape.
class Eltwise : public MIMOLayer {};

}  // namespace TarnoCPU
