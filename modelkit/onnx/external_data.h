// Tensors that an ONNX file keeps in other files.
#pragma once

#include <onnx/onnx_pb.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "modelkit/status.h"

namespace modelkit::onnx {

/// Reads the bytes of external tensors. Files are looked for in one folder and below it only; a
/// location that leads out of it, by "..", by a root or through a link, is refused.
///
/// All tensors together get at most twice the bytes that each of these files holds, so that two
/// names for the same weights are fine and a thousand are not, and `MOST_EXTERNAL_BYTES` in all.
class ExternalData {
public:
    /// An empty folder refuses all.
    explicit ExternalData(std::string folder) : folder(std::move(folder)) {}

    /// Reads `size` bytes in pieces of `piece` at most; `take` gets each with its length.
    Status read(const ::onnx::TensorProto& tensor, uint64_t size, size_t piece,
                const std::function<void(const char* bytes, size_t length)>& take);

    /// Whole paths, links followed, of what was read.
    const std::set<std::string>& files() const { return paths; }

private:
    Status find(const std::string& location, std::string& path) const;

    std::string folder;
    std::set<std::string> paths;
    std::map<std::pair<uint64_t, uint64_t>, uint64_t> read_of;  // by device and number of a file
    uint64_t read_of_all = 0;
};

constexpr uint64_t MOST_EXTERNAL_BYTES = uint64_t{1} << 32;

}  // namespace modelkit::onnx
