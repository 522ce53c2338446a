// Work by time, where the time is one.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

/// Milliseconds below which a time on the GPU's clock is none: starting a dispatch alone takes
/// longer on any GPU, and drivers that leave dispatches out of their queries answer with some
/// nanoseconds.
constexpr double shortest_dispatch_ms = 1e-3;

/// "12.3", thousand millions of multiply-adds a second; "-" without work, and for a time that is
/// not above `shortest_ms`, or is no number.
std::string rate_text(int64_t multiply_adds, double milliseconds, double shortest_ms = 0.0);

/// Runs a second, in the same way.
std::string runs_text(double milliseconds_each);

/// Whether timer queries that saw `seen_ms` in the layers of a run saw the dispatches. Waiting for
/// the whole run took `waited_ms` on the clock. Software drivers see next to nothing: they run a
/// dispatch beside their clock.
bool queries_saw_dispatches(double seen_ms, double waited_ms);

}  // namespace tool
