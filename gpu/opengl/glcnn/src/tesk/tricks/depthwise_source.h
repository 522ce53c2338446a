// The pieces of source text of depthwise and grouped convolutions, in the order in which they
// stand.
#pragma once

#include <string>

#include "tricks_params.h"

namespace tesk {
namespace depthwise {

/// Everything above main: `src`, `dst`, weights and biases as arrays of `entry`, a type with four
/// numbers.
std::string declarations(const TricksParams& params, const char* entry);

/// `dst_gid`, the invocation, and `src_gid`, the tap in the middle of its window. An invocation
/// makes `step` pixels along each side.
std::string positions(const TricksParams& params, int step);

/// `srcData`: width * height texels, x fastest, from (first_x, first_y) off `src_gid` on.
std::string window(int first_x, int first_y, int width, int height);

/// `index_weights` and `index_bias`, the first entries of the invocation's slice.
std::string indices(const TricksParams& params, int entries_per_slice);

/// ReLU or ReLU6 of the vec4 `value`; no line for any other code.
std::string activation(const TricksParams& params, const char* value);

}  // namespace depthwise
}  // namespace tesk
