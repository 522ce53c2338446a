#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Maximum or average over windows.
class Pooling : public SISOLayer {};

}  // namespace TarnoCPU
