// One edge of the network graph.
#pragma once

#include <string>
#include <vector>

#include "../platform/export.h"

namespace TarnoCPU {

/// Who writes a tensor and who reads it. The data of blob i is the i-th `Mat` of an extractor.
struct TN_API Blob {
    std::string name;            ///< empty in loaded networks
    int producer = -1;           ///< index of the layer that writes this blob
    std::vector<int> consumers;  ///< indices of the layers that read it, in construction order
};

}  // namespace TarnoCPU
