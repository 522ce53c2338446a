// What a set of measured times says.
#pragma once

#include <cstddef>
#include <vector>

namespace tool {

struct SampleStatistics {
    size_t count = 0;
    double mean = 0.0;
    double min = 0.0;
    double p50 = 0.0;
    double p90 = 0.0;
    double p99 = 0.0;
    double max = 0.0;
};

/// Percentiles by nearest rank: p90 is the smallest sample that at least 90 of 100 do not exceed.
/// All zero without samples.
SampleStatistics statistics_of(std::vector<double> samples);

/// The nearest-rank percentile of samples in ascending order, `percent` from 1 to 100.
double percentile(const std::vector<double>& ascending, int percent);

}  // namespace tool
