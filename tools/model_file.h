// Opening a model file.
#pragma once

#include <tarno/model.h>

#include <cstdint>
#include <string>

#include "library_reports.h"

namespace tool {

/// A model that was read without a fault.
struct ModelFile {
    std::string path;  ///< named in messages
    std::string file;  ///< what was read; the same, but for a part of a model
    int64_t size = 0;
    ZQNetLoader loader;
};

/// Reads `path` into `model`, the layers in the order of the file. Throws CommandError when the
/// file can't be read or is not sound; an assertion of the reader counts as a fault, too.
void open_model(const std::string& path, LibraryReports& reports, ModelFile& model);

/// "layer 7 (Conv2D)".
std::string layer_text(unsigned int id, unsigned int type);

/// The error of a layer: "FILE: layer 7 (Conv2D): TEXT".
std::string layer_fault(const std::string& path, unsigned int id, unsigned int type,
                        const std::string& text);

}  // namespace tool
