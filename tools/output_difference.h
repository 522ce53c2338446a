// Whether two outputs of one net are the same but for rounding.
#pragma once

#include <vector>

namespace tool {

struct OutputDifference {
    double largest = 0.0;    ///< between two numbers at the same place
    double magnitude = 0.0;  ///< the largest finite number of the first output, without its sign
    bool same = false;       ///< false when rounding can't explain the difference
};

/// `relative_bound` is what rounding explains, as a part of the magnitude. A NaN or an infinity
/// that only one output has, and outputs of different lengths, are never explained.
OutputDifference output_difference(const std::vector<float>& first,
                                   const std::vector<float>& second, double relative_bound);

}  // namespace tool
