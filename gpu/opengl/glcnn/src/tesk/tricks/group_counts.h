// Sizes of a dispatch.
#pragma once

#include <algorithm>

#include "tricks.h"

namespace tesk {

/// Work groups in each direction.
struct GroupCounts {
    unsigned int x = 0;
    unsigned int y = 0;
    unsigned int z = 0;

    GroupCounts() = default;
    /// Sizes come from files: what no GL dispatches makes no groups, or as many as all can.
    GroupCounts(int x, int y, int z) : x(limited(x)), y(limited(y)), z(limited(z)) {}

private:
    static unsigned int limited(int count) {
        return static_cast<unsigned int>(std::min(std::max(count, 0), 65535));
    }
};

/// The problem of width x height x slices invocations, in groups of `local` numbers.
inline GroupCounts groupsOver(const Extent& extent, int slices, int localX, int localY,
                              int localZ) {
    return {groupCount(extent.width, localX), groupCount(extent.height, localY),
            groupCount(slices, localZ)};
}

}  // namespace tesk
