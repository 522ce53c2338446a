// What is known of every operator class, by name.
#pragma once

#include <cstddef>

#include "../platform/export.h"
#include "operator.h"

namespace TarnoCPU {

/// One row of `operators.def`.
struct OperatorInfo {
    enum class Base { SISO, SISOInplace, MIMO };
    /// In ascending order: each brings those before it. `FMA` is FMA3.
    enum class InstructionSet { Baseline, SSE41, AVX, FMA, AVX2 };
    enum class Layout { Any, CHW, C4HW4 };
    enum class Bias { Any, Needed };

    const char* name;  ///< class name
    OperatorCreator creator;
    const char* layer;  ///< key of `create_layer` whose layers take the operator
    Base base;
    InstructionSet isa;  ///< what the processor must have; the library itself never tests it
    Layout layout_in;
    Layout layout_out;  ///< `Any`: the layout that came in
    int kernel_h;       ///< 0 for any
    int kernel_w;
    int stride;           ///< in both directions, 0 for any
    int output_multiple;  ///< divisors of output channels, input channels, rows and columns
    int input_multiple;
    int height_multiple;
    int width_multiple;
    Bias bias;  ///< `Needed`: not for a layer without a bias
};

/// All rows, in the order of the list; `*count` receives their number.
TN_API const OperatorInfo* operator_list(size_t* count);

/// The row of the class `name`, or null; null for null.
TN_API const OperatorInfo* find_operator(const char* name);

/// The row whose factory is `creator`, or null; null for null.
TN_API const OperatorInfo* find_operator(OperatorCreator creator);

}  // namespace TarnoCPU
