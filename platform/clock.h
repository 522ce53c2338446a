// The wall clock behind the per-layer statistics.
#pragma once

#include "export.h"

namespace Tarno {

/// Milliseconds since 1 January 1970 UTC: whole seconds times 1000 plus the millisecond of the
/// second. Resolution is one millisecond. Use a monotonic clock of your own to measure short work.
TN_API double wall_clock_milliseconds();

}  // namespace Tarno
