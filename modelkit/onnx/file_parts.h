// How many parts an ONNX file has, counted before anything is made of them: a node of two bytes
// takes a hundred times as many in memory.
#pragma once

#include <google/protobuf/io/coded_stream.h>

#include "modelkit/status.h"

namespace modelkit::onnx {

enum class FileKind { Model, Tensor };

/// Reads a message to its end, passing over what is long. Success when its nodes are at most
/// `MOST_NODES` and its parts (texts, lists, messages) at most `MOST_PARTS`, those of graphs inside
/// of graphs included; else one line.
Status check_parts(google::protobuf::io::CodedInputStream& in, FileKind kind);

}  // namespace modelkit::onnx
