// A line on a terminal while work goes on.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tool {

/// Shows "what 12 of 85" on standard error, rewritten in place, and takes the line away at the end.
/// Nothing is written unless standard error is a terminal, and nothing for work that is done within
/// half a second.
class Progress {
public:
    /// `total` 0: the end is not known in steps.
    Progress(std::string what, int64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// `done` steps are behind.
    void step(int64_t done);

private:
    using Clock = std::chrono::steady_clock;
    std::string what;
    int64_t total;
    bool terminal;
    bool shown = false;
    Clock::time_point next;
};

}  // namespace tool
