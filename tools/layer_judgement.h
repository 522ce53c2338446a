// Whether a layer's outputs on both engines lie as near to each other as they have to.
#pragma once

#include <cstddef>
#include <vector>

#include "difference_bound.h"

namespace tool {

struct Judgement {
    double share_of_bound = 0.0;  ///< of the element that comes nearest to its bound, or the
                                  ///< farthest beyond it
    size_t worst = 0;             ///< that element
    double worst_difference = 0.0;
    double worst_bound = 0.0;
    size_t unbounded =
        0;  ///< elements whose bound is no finite number: nothing can be said of them
    size_t first_unbounded = 0;

    bool beyond() const { return share_of_bound > 1.0; }
    /// Whether every element had a bound and kept it.
    bool agrees() const { return unbounded == 0 && !beyond(); }
};

/// `bound` has a number for each element of `pair`.
Judgement judge(const EnginePair& pair, const std::vector<float>& bound);

}  // namespace tool
