// From ONNX graphs to model files.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "modelkit/names.h"
#include "modelkit/onnx/emitter.h"
#include "modelkit/onnx/graph.h"
#include "modelkit/status.h"

namespace modelkit::onnx {

struct ConvertOptions {
    Engines engines = Engines::Cpu;
    /// In place of the shapes of the graph's inputs, or for what they leave open, by name. An open
    /// first dimension is a batch of 1.
    std::map<std::string, std::vector<int64_t>> shapes;
    /// The header of the file; the base size is that of the first picture input.
    ModelHeader header;
    /// Keep what `Conversion::rounded` needs.
    bool keep_rounded = true;
};

struct Conversion {
    std::vector<unsigned char> file;
    std::vector<LayerReport> layers;
    ModelNames names;
    std::vector<std::string> notes;           ///< where the engine has limits that ONNX has not
    std::map<std::string, int> value_layers;  ///< the layer that holds each value that is left
    std::vector<std::string> value_order;     ///< those values as the layers make them
    std::map<std::string, std::vector<int64_t>> value_dims;
    /// The simplified graph with the constants that the file has.
    Graph rounded;
    /// Sum of the relative changes of constants that `rounded` does not show.
    double slack = 0;
};

/// Converts a graph, which is used up. On failure the reason is one line that names the node.
Status convert(Graph graph, const ConvertOptions& options, Conversion& result);

}  // namespace modelkit::onnx
