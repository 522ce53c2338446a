// The factories of all operator classes, `<ClassName>_operator_creator`, for tuning tables.
#pragma once

#include "../platform/export.h"
#include "operator.h"

namespace TarnoCPU {

#define TN_OPERATOR(name, layer, base, isa, layout_in, layout_out, kernel_h, kernel_w, stride, \
                    output_multiple, input_multiple, height_multiple, width_multiple)          \
    TN_API Operator* name##_operator_creator();
#include "operators.def"

}  // namespace TarnoCPU
