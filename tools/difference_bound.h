// How far two engines may lie apart behind a layer when one of them stores its tensors as halves.
#pragma once

#include <tarno/model.h>

#include <optional>
#include <string>
#include <vector>

#include "gpu_rules.h"
#include "model_plan.h"

namespace tool {

/// One layer's output on both engines, in the order of channels, rows, columns. `size` is the GPU
/// engine's: the CPU engine has dense layers and reshapes as one row of the same elements.
struct EnginePair {
    TensorSize size;
    std::vector<float> cpu;
    std::vector<float> gpu;
};

/// How far a shader's tanh and logistic function may be from the exact ones, in units u = 2^-23,
/// one in the last place of a float at 1. GLSL promises exp(x) to 3 + 2|x| such units of its value,
/// a quotient to 2.5, and sums and products rounded correctly; what is defined by an equation has
/// the errors of its parts.
///
///   s = 1 / (1 + exp(-x))   exp moves it by s (1 - s) (3 + 2|x|) u, at most 1.0 u (at |x| = 0.9);
///                           the sum by 0.5 u, the quotient by 2.5 u of s <= 1: 4.0 u
///   t = sinh(x) / cosh(x)   the two exp move it by (3 + 2|x|) / cosh(x)^2 u, at most 3.3 u (at
///                           |x| = 0.3); difference and sum by 0.5 u each, the quotient by 2.5 u:
///                           6.8 u. As 1 - 2 / (exp(2x) + 1), 2.0 u by exp, 1 u and 5 u by sum and
///                           quotient of up to 2, 0.5 u by the difference: 8.5 u
///
/// So 16 u holds them all, with the half unit of the CPU engine's rounding from double to float.
/// Mesa's llvmpipe was measured at 1.2 u (tanh) and 0.9 u.
constexpr double function_error = 0x1p-19;

/// |cpu - gpu|; 0 where both are the same infinity or no number, infinite where one alone is none.
double element_difference(float cpu, float gpu);

/// Why the two engines do not mean the same by a layer; nothing for layers that they run alike.
std::optional<std::string> unlike_reason(const ZQLayerInfo& record, const TensorSize& cpu_size,
                                         const TensorSize& gpu_size);

/// For each element of a layer's output the difference that is explained: the measured differences
/// of its inputs, through the layer at its worst; the rounding of sums of floats in any order; one
/// rounding to half at the end, to nearest or towards zero. Where constant-index programs add up
/// slice by slice in the output itself, one for each of these.
///
/// As the inputs' differences are measured ones, the bound is carried along the net and yet stays
/// as tight as the net is: a layer is beyond it only for what the layer itself did. Infinite where
/// a value may leave the range of halves, or comes from what is no number: nothing is said of these
/// elements. Not for layers that the engines do not run alike.
std::vector<float> explained_difference(const ZQLayerInfo& record,
                                        const std::vector<const EnginePair*>& bottoms,
                                        const EnginePair& output, const GpuOptions& gpu);

/// The same for an input: one rounding to half.
std::vector<float> explained_input_difference(const EnginePair& input);

}  // namespace tool
