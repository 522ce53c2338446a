#include "model_file.h"

#include "errors.h"
#include "files.h"
#include "host_system.h"

namespace tool {
void open_model(const std::string& path, LibraryReports& reports, ModelFile& model) {
    model.path = path;
    model.file = path;
    model.size = size_of_regular_file(path);
    // All fields are of 2 or 4 bytes. The reader takes a single last byte for the end.
    const bool odd = model.size % 2 != 0;

    std::string after = "at the start of the records";
    std::string assertion;
    bool loaded = false;
    {
        // The reader of version 10000 prints there, and what the command prints may be parsed.
        const SilentStandardOutput silent;
        const LibraryReports::Observation observation(reports, [&](const std::string& condition) {
            assertion = condition;
            const auto layers = model.loader.getSequentialLayers();
            if (!layers.empty()) after = "behind layer " + std::to_string(layers.back());
        });
        loaded = model.loader.LoadFile(path.c_str(), false);
    }
    // A wrong mark is an assertion, and the reader goes on from there: what it says first is where
    // the damage is.
    if (!assertion.empty()) {
        throw CommandError(path + ": not a sound model: " + after + ": expected " + assertion +
                           ", found otherwise");
    }
    if (!loaded) throw CommandError(path + ": not a sound model: " + model.loader.failure());
    if (odd) {
        throw CommandError(path + ": not a sound model: an even number of bytes expected, found " +
                           std::to_string(model.size));
    }
}

std::string layer_text(unsigned int id, unsigned int type) {
    return "layer " + std::to_string(id) + " (" + zq_layer_type_name(type) + ")";
}

std::string layer_fault(const std::string& path, unsigned int id, unsigned int type,
                        const std::string& text) {
    return path + ": " + layer_text(id, type) + ": " + text;
}

}  // namespace tool
