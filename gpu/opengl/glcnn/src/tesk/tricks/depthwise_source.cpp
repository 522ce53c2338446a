#include "depthwise_source.h"

#include "source_pieces.h"
#include "tricks.h"

namespace tesk {
namespace depthwise {

std::string declarations(const TricksParams& params, const char* entry) {
    std::string text = sourceHead(params) + samplerLine(params.inChannels, "src") +
                       samplerLine(params.outChannels, "dstIn") + outputLine(params.outChannels, 1);
    if (params.uboWeightCount > 0) {
        text += formatSource(
            "layout(std140, binding = 2) uniform weight_buffer{\n"
            "%s weights[%d]; //o/4 x h x w x 4\n"
            "};\n"
            "layout(std140, binding = 3) uniform bias_buffer{\n"
            "%s bias[%d]; //o/4 x 4\n"
            "};\n",
            entry, params.uboWeightCount, entry, sliceCount(params.outChannels));
    } else {
        text += formatSource(
            "layout(std430, binding = 2) buffer weight_buffer{\n"
            "%s weights[]; //o/4 x h x w x 4\n"
            "};\n"
            "layout(std430, binding = 3) buffer bias_buffer{\n"
            "%s bias[]; //o/4 x 4\n"
            "};\n",
            entry, entry);
    }
    return text;
}

std::string positions(const TricksParams& params, int step) {
    const bool array = params.outChannels > 4;
    const std::string times = step == 1 ? "" : formatSource(" * %d", step);
    std::string text = array ? "ivec3 dst_gid = ivec3(gl_GlobalInvocationID.xyz);\n"
                             : "ivec2 dst_gid = ivec2(gl_GlobalInvocationID.xy);\n";
    text += formatSource(
        "int offset_x = %d;\n"
        "int offset_y = %d;\n",
        (params.kernelWidth >> 1) - params.padX, (params.kernelHeight >> 1) - params.padY);
    const char* const type = params.inChannels > 4 ? "ivec3" : "ivec2";
    text += formatSource(
        "%s src_gid = %s(dst_gid.x * %d%s + offset_x, dst_gid.y * %d%s + offset_y%s);\n", type,
        type, params.strideX, times.c_str(), params.strideY, times.c_str(),
        params.inChannels <= 4 ? ""
        : array                ? ", dst_gid.z"
                               : ", 0");
    return text;
}

std::string window(int first_x, int first_y, int width, int height) {
    std::string text = formatSource("vec4 srcData[%d];\n", width * height);
    for (int i = 0; i < width * height; ++i) {
        text += formatSource("srcData[%d] = texelFetchOffset(src, src_gid, 0, ivec2(%d, %d));\n", i,
                             first_x + i % width, first_y + i / width);
    }
    return text;
}

std::string indices(const TricksParams& params, int entries_per_slice) {
    if (params.outChannels <= 4) return "int index_weights = 0;\nint index_bias = 0;\n";
    return formatSource(
        "int index_weights = dst_gid.z * %d;\n"
        "int index_bias = dst_gid.z;\n",
        entries_per_slice);
}

std::string activation(const TricksParams& params, const char* value) {
    switch (params.activation) {
        case 2:
            return formatSource("%s = max(vec4(0.0, 0.0, 0.0, 0.0), %s);\n", value, value);
        case 8:
            return formatSource("%s = min(max(vec4(0.0, 0.0, 0.0, 0.0), %s), 6.0);\n", value,
                                value);
        default:
            return "";
    }
}

}  // namespace depthwise
}  // namespace tesk
