#include "output_difference.h"

#include <algorithm>
#include <cmath>

namespace tool {

OutputDifference output_difference(const std::vector<float>& first,
                                   const std::vector<float>& second, double relative_bound) {
    OutputDifference result;
    bool alike = first.size() == second.size();
    for (size_t i = 0; i < std::min(first.size(), second.size()); ++i) {
        const double a = static_cast<double>(first[i]), b = static_cast<double>(second[i]);
        if (std::isfinite(a)) result.magnitude = std::max(result.magnitude, std::fabs(a));
        if (a == b || (std::isnan(a) && std::isnan(b))) continue;
        if (!std::isfinite(a) || !std::isfinite(b)) alike = false;
        const double difference = std::fabs(a - b);
        if (!std::isnan(difference)) result.largest = std::max(result.largest, difference);
    }
    result.same = alike && result.largest <= relative_bound * result.magnitude;
    return result;
}

}  // namespace tool
