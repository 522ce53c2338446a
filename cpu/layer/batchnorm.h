#pragma once

#include "cpu/layer/operator_layer.h"

namespace TarnoCPU {

/// Batch normalisation. Its key in `create_layer` is "BatchNormalization".
class Batchnorm : public InplaceLayer {};

}  // namespace TarnoCPU
