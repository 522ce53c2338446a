// Writes model files from layer records.
//
// What was written reads back as equal records, and what was read is written back as equal bytes:
// the writer refuses a record that says something its file has no place for.
#pragma once

#include <tarno/model.h>

#include <array>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "modelkit/status.h"

namespace modelkit {

/// The header's fields. `version` decides which message types and fields a file can hold.
struct ModelHeader {
    unsigned int version = 10011;
    unsigned int gesture_mode = 0;
    unsigned int application_type = 0;
    unsigned int model_id = 0;
    unsigned int base_w = 256;
    unsigned int base_h = 256;
    std::array<unsigned int, 242> reserved = {};  ///< words 7 to 248, without a meaning
};

/// The header of a model that was read.
ModelHeader header_of(const ZQNetLoader& loader);

/// Where a writer gets the numbers of an array that a record only counts: asked by the array's name
/// for so many halves, it hands them to `put` in any pieces. The arrays are asked for in the order
/// of the file.
using PutHalves = std::function<void(const unsigned short* halves, size_t count)>;
using ArraySource =
    std::function<void(const std::string& array, size_t count, const PutHalves& put)>;

/// Collects the messages of one file in memory.
class ModelWriter {
public:
    explicit ModelWriter(const ModelHeader& header);

    /// Room for so many bytes more, so that the file does not move while it grows by them.
    void reserve(size_t bytes);

    /// Appends a record. On failure nothing is appended, and the reason names the layer, the
    /// member, what was expected and what was found. The id must be new to the file; whether the
    /// bottoms are there is not looked at.
    Status add(const ZQLayerInfo& record);

    /// The same for a record whose arrays are null, though counted: `source` gives them. What it
    /// throws is passed on, and nothing is appended.
    Status add(const ZQLayerInfo& record, const ArraySource& source);

    /// Appends all records of a model that was read, in its order.
    Status add_all(const ZQNetLoader& loader);

    /// The whole file.
    const std::vector<unsigned char>& bytes() const { return file; }
    /// The same, without a copy; the writer is done then.
    std::vector<unsigned char> take() { return std::move(file); }

    /// Writes the file beside `path` and moves it there when it is complete, so that a reader never
    /// sees half of it.
    Status save(const std::string& path) const;

private:
    unsigned int version;
    std::set<unsigned short> ids;
    std::vector<unsigned char> file;
};

/// Writes `bytes` to `path` in the way of `ModelWriter::save`.
Status save_bytes(const std::string& path, const std::vector<unsigned char>& bytes);

}  // namespace modelkit
