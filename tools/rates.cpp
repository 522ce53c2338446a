#include "rates.h"

#include <cmath>

#include "numbers.h"

namespace tool {

std::string rate_text(int64_t multiply_adds, double milliseconds, double shortest_ms) {
    const bool timed = std::isfinite(milliseconds) && milliseconds > shortest_ms;
    if (multiply_adds == 0 || !timed) return "-";
    return fixed(static_cast<double>(multiply_adds) / milliseconds * 1e-6, 1);
}

std::string runs_text(double milliseconds_each) {
    const bool timed = std::isfinite(milliseconds_each) && milliseconds_each > 0.0;
    return timed ? fixed(1e3 / milliseconds_each, 1) : "-";
}

bool queries_saw_dispatches(double seen_ms, double waited_ms) {
    // On a GPU most of a short run is the way to it and back, so that a small part is much.
    return seen_ms > 0.0 && seen_ms >= 0.05 * waited_ms;
}

}  // namespace tool
