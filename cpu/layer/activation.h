#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Any element-wise activation, stand-alone or fused to a layer; its kind is that of the operator.
class Activation : public InplaceLayer {};

}  // namespace TarnoCPU
