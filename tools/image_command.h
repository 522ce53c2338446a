// `tarno image`: the GPU operations on pictures, for people to look at.
#pragma once

#include <optional>
#include <string>

#include "numbers.h"

namespace tool {

struct ImageCommand {
    std::string op;
    std::string input;
    std::string guide;
    std::string output;
    std::string composite;   ///< guided: .png; empty for none
    std::string background;  ///< "R,G,B" or a picture
    std::optional<Size> size;  ///< of the output of "resize", of the input of "yuv2rgb"
    int radius = 8;
    double subsampling = 4.0;
    double eps = 1e-3;
    int levels = 4;
    bool verbose = false;
};

/// The names that `op` may have, as they stand in messages.
extern const char* const image_operations;

bool is_image_operation(const std::string& name);

/// Writes the picture and says what it wrote.
void image(const ImageCommand& command);

}  // namespace tool
