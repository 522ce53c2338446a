#include "sample_statistics.h"

#include <algorithm>
#include <numeric>

namespace tool {

double percentile(const std::vector<double>& ascending, int percent) {
    if (ascending.empty()) return 0.0;
    const size_t rank = (ascending.size() * static_cast<size_t>(percent) + 99) / 100;
    return ascending[std::max<size_t>(rank, 1) - 1];
}

SampleStatistics statistics_of(std::vector<double> samples) {
    SampleStatistics result;
    if (samples.empty()) return result;
    std::sort(samples.begin(), samples.end());
    result.count = samples.size();
    result.mean =
        std::accumulate(samples.begin(), samples.end(), 0.0) / static_cast<double>(samples.size());
    result.min = samples.front();
    result.p50 = percentile(samples, 50);
    result.p90 = percentile(samples, 90);
    result.p99 = percentile(samples, 99);
    result.max = samples.back();
    return result;
}

}  // namespace tool
