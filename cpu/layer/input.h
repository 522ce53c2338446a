#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Where a tensor of the caller enters; bottom and top are the same blob.
class Input : public InplaceLayer {};

}  // namespace TarnoCPU
