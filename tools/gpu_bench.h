// `tarno bench --engine gpu`.
#pragma once

#include "bench_command.h"

namespace tool {

/// Prints the report to standard output. Throws CommandError.
void bench_gpu(const BenchCommand& command);

}  // namespace tool
