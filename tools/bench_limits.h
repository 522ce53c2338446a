// How long the benchmarks of both engines go on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tool {

// Where nobody says otherwise, a slow model ends after a while, too.
constexpr int64_t default_runs = 100;
constexpr double default_duration = 10.0;  ///< seconds
constexpr double most_warmup = 5.0;        ///< seconds
constexpr size_t most_profiled_runs = 100;
/// Both engines are fed the same numbers.
constexpr unsigned int input_seed = 1;

}  // namespace tool
