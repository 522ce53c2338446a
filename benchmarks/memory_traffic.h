// Speed of work that is bound by memory, beside memcpy in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <vector>

namespace benchmark_support {

/// Seconds of a memcpy that reads and writes `traffic` bytes together, so copies half as many. The
/// best of many rounds of at least 2 ms, taken once per size.
inline double memcpy_seconds(size_t traffic) {
    static std::map<size_t, double> known;
    const auto found = known.find(traffic);
    if (found != known.end()) return found->second;
    const size_t size = std::max<size_t>(1, traffic / 2);
    std::vector<unsigned char> from(size, 1), to(size, 2);
    using Clock = std::chrono::steady_clock;
    double best = 1e9;
    for (int round = 0; round < 30; ++round) {
        const auto start = Clock::now();
        double seconds = 0.0;
        int copies = 0;
        do {
            std::memcpy(to.data(), from.data(), size);
            benchmark::DoNotOptimize(to.data());
            benchmark::ClobberMemory();
            ++copies;
            seconds = std::chrono::duration<double>(Clock::now() - start).count();
        } while (seconds < 2e-3);
        best = std::min(best, seconds / copies);
    }
    known[traffic] = best;
    return best;
}

/// Counters: bytes read and written a second, and the speed in parts of memcpy's (printed as a rate,
/// since the library divides by the time that it measured).
inline void report_traffic(benchmark::State& state, size_t bytes_read, size_t bytes_written) {
    const size_t traffic = bytes_read + bytes_written;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(traffic));
    state.counters["of_memcpy"] =
        benchmark::Counter(memcpy_seconds(traffic) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
}

}  // namespace benchmark_support
