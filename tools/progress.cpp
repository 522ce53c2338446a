#include "progress.h"

#include <cstdio>
#include <utility>

#include "host_system.h"

namespace tool {

Progress::Progress(std::string what, int64_t total)
    : what(std::move(what)),
      total(total),
      terminal(standard_error_is_terminal()),
      next(Clock::now() + std::chrono::milliseconds(500)) {}

Progress::~Progress() {
    if (shown) std::fputs("\r\033[K", stderr);
}

void Progress::step(int64_t done) {
    if (!terminal) return;
    const Clock::time_point now = Clock::now();
    if (now < next) return;
    next = now + std::chrono::milliseconds(100);
    shown = true;
    std::string line = what + " " + std::to_string(done);
    if (total > 0) line += " of " + std::to_string(total);
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
    std::fflush(stderr);
}

}  // namespace tool
