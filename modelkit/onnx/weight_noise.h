// A graph whose weights are off by as much as halves can make them.
#pragma once

#include <cstdint>

#include "modelkit/onnx/graph.h"

namespace modelkit::onnx {

/// The graph with every floating-point constant changed by up to `reach` of itself, at random of a
/// seed, and from 2^-21 on at least by up to 2^-25, the last place of the smallest halves. Bounds
/// of Clip, scales of Resize and Upsample, the values of Pad and all that integers are computed
/// from stay: no file keeps them as weights, and a size must not change. What takes means or blends
/// of pixels, or clamps otherwise than from 0 to 6, has its result changed instead, since its
/// factors become weights.
///
/// It knows nothing of what a converter makes of the graph.
Graph with_weight_noise(const Graph& graph, double reach, uint32_t seed);

}  // namespace modelkit::onnx
