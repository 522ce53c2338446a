// One number per channel, added to all of it.
#pragma once

#include <cstdint>

namespace TarnoCPU {

/// x[p][i] += bias[p] for `channels` planes of `plane` floats. `bias` has `bias_count` numbers;
/// channels behind them get 0.
void add_bias(float* x, int64_t channels, int64_t plane, const float* bias, int64_t bias_count);

}  // namespace TarnoCPU
