// The cheapest way through a net when every layer may be computed in several ways, some of which
// take or leave their tensors in another layout.
#pragma once

#include <cstddef>
#include <vector>

#include "table_slots.h"

namespace tool {

struct PathLayer {
    struct Way {
        Packing in = Packing::planes;   ///< that all bottoms must have
        Packing out = Packing::planes;  ///< that the top gets
        double cost = 0.0;
    };
    std::vector<int> bottoms;  ///< blob numbers; none for an input
    int top = 0;
    std::vector<Way> ways;  ///< at least one
};

/// The index of the way that each layer takes on the cheapest whole path. Blobs that nobody reads
/// are results and must be planes. Empty when there is no path.
///
/// A shortest path over the layers in their order; a node is the layouts of all tensors that a
/// later layer still reads, so branches and skips are exact while at most ten of them are
/// alive at once; beyond that the dearest are dropped on the way. Source: E. W. Dijkstra, "A note
/// on two problems in connexion with graphs", 1959, which on this graph without cycles is one
/// sweep.
std::vector<size_t> cheapest_path(const std::vector<PathLayer>& layers, size_t blob_count);

}  // namespace tool
