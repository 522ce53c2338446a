#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Dense layer.
class FullConnection : public SISOLayer {};

}  // namespace TarnoCPU
