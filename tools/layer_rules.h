// What one layer does on the CPU engine under the default rule: sizes, work, memory, and what it
// can't do.
#pragma once

#include <tarno/model.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "model_plan.h"

namespace tool {

/// Thrown by the functions below: what was expected and what was found.
struct LayerRefused {
    std::string text;
};

/// Fills in what holds for any size of the bottoms: names, window, activation, parameters.
void describe_layer(const ZQLayerInfo& record, PlannedLayer& layer);

/// Fills in size, work and memory of a layer with bottoms of these sizes.
void size_layer(const ZQLayerInfo& record, const std::vector<TensorSize>& bottoms,
                PlannedLayer& layer);

/// A product or a sum of numbers that are not negative; what does not fit is the largest number.
int64_t saturated_product(std::initializer_list<int64_t> factors);
int64_t saturated_sum(int64_t a, int64_t b);

/// Bytes of a float tensor. Throws LayerRefused when a size is below 1 or the tensor above what the
/// engine can hold.
int64_t checked_tensor_bytes(const TensorSize& size);

}  // namespace tool
