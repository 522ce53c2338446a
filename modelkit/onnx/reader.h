// Reads ONNX files (IR 3 to 8, operator sets 7 to 17) into graphs.
#pragma once

#include <cstddef>
#include <string>

#include "modelkit/onnx/graph.h"
#include "modelkit/status.h"

namespace modelkit::onnx {

/// The operator sets and representations that are read.
constexpr int OLDEST_OPSET = 7;
constexpr int NEWEST_OPSET = 17;
constexpr int OLDEST_IR = 3;
constexpr int NEWEST_IR = 8;
/// A file with more nodes is refused before anything is made of them.
constexpr size_t MOST_NODES = 100000;
/// So is one with more texts, lists and parts inside of parts in all; nodes of real models have
/// about ten, with those of the values that they make.
constexpr size_t MOST_PARTS = 30 * MOST_NODES;

/// Reads a file. Tensors kept in other files are read from the model's own folder and below it;
/// a location that leads out of it, by "..", by a root or through a link, is refused, and so are
/// tensors that together take more than twice what such a file holds. On failure `graph` is left
/// empty and the reason is one line without the path.
Status read_graph(const std::string& path, Graph& graph);

/// The same from memory; `folder` is where external tensors lie, empty to refuse them all.
Status read_graph(const void* bytes, size_t size, const std::string& folder, Graph& graph);

/// Reads a tensor file (a bare TensorProto, as `.pb` test data are), whose numbers must be in it.
Status read_tensor(const std::string& path, Tensor& tensor);

}  // namespace modelkit::onnx
