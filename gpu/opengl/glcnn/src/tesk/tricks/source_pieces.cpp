#include "source_pieces.h"

#include "../program_sources.h"
#include "tricks.h"

namespace tesk {

std::string sourceHead(const TricksParams& params) {
    return formatSource(
        "#version 310 es\n"
        "layout(local_size_x = %d, local_size_y = %d, local_size_z = %d) in;\n",
        params.localSizeX, params.localSizeY, params.localSizeZ);
}

std::string samplerLine(int channels, const char* name) {
    return formatSource("uniform lowp %s %s;\n", channels <= 4 ? "sampler2D" : "sampler2DArray",
                        name);
}

std::string outputLine(int channels, int binding) {
    return formatSource("layout(rgba16f, binding = %d) writeonly uniform lowp %s dst;\n", binding,
                        channels <= 4 ? "image2D" : "image2DArray");
}

std::string catalogueSource(const char* name) {
    const char* const source = programSource(name);
    return source != nullptr ? source : "";
}

}  // namespace tesk
