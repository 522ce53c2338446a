// Between planes and four channels side by side.
#pragma once

#include <cstdint>

namespace TarnoCPU {

/// [4][plane] to [plane][4].
void interleave(const float* from, int64_t plane, float* to);

/// [plane][4] to [4][plane].
void separate(const float* from, int64_t plane, float* to);

}  // namespace TarnoCPU
