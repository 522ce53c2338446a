// The factories of all operator classes, `<ClassName>_operator_creator`, for tuning tables.
#pragma once

#include "../platform/export.h"
#include "operator.h"

namespace TarnoCPU {

#define TN_OPERATOR(name, ...) TN_API Operator* name##_operator_creator();
#include "operators.def"

}  // namespace TarnoCPU
