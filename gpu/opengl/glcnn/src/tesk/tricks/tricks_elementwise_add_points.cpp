#include "tricks_elementwise_add_points.h"

#include "source_pieces.h"

namespace tesk {

std::string Tricks_ElementWise_Add_Points::programName(TricksParams& params,
                                                       const char* name_prefix, int, int x, int y,
                                                       int z) {
    return formatSource("%s_%dPoints_%dSlice_%s_out_a%d_localsize_%dx%dx%d_program", name_prefix,
                        pixelsPerInvocation * pixelsPerInvocation, slicesPerInvocation,
                        channelWord(params.inChannels), params.activation, x, y, z);
}

std::string Tricks_ElementWise_Add_Points::generateSource(TricksParams& params, int, int) {
    const int channels = params.inChannels;
    const bool array = channels > 4;
    const int points = pixelsPerInvocation * pixelsPerInvocation;
    const int slices = array ? slicesPerInvocation : 1;
    const char* const times = pixelsPerInvocation == 2 ? " * 2" : "";

    std::string text = sourceHead(params) + samplerLine(channels, "src0") +
                       samplerLine(channels, "src1") + outputLine(channels, 2);
    text += "void main(){ \n";
    text += array ? "ivec3 pos = ivec3(gl_GlobalInvocationID.xyz);\n"
                  : "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);\n";
    for (int slice = 0; slice < slices; ++slice) {
        if (array) {
            text += formatSource(
                "ivec3 src_pos_base_slice%d = ivec3(pos.x%s, pos.y%s, pos.z%s%s);\n", slice, times,
                times, slicesPerInvocation == 2 ? " * 2" : "", slice == 1 ? " + 1" : "");
        } else {
            text += formatSource("ivec2 src_pos_base_slice%d = ivec2(pos.x%s, pos.y%s);\n", slice,
                                 times, times);
        }
    }
    for (int slice = 0; slice < slices; ++slice) {
        text += formatSource("vec4 out_value_slice%d[%d];\n", slice, points);
        for (int point = 0; point < points; ++point) {
            const std::string offset = formatSource("ivec2(%d, %d)", point % 2, point / 2);
            text += formatSource(
                "out_value_slice%d[%d] = texelFetchOffset(src0, src_pos_base_slice%d, 0, %s) + "
                "texelFetchOffset(src1, src_pos_base_slice%d, 0, %s);\n",
                slice, point, slice, offset.c_str(), slice, offset.c_str());
            if (params.activation == 2) {
                text += formatSource(
                    "out_value_slice%d[%d] = max(vec4(0.0, 0.0, 0.0, 0.0), "
                    "out_value_slice%d[%d]);\n",
                    slice, point, slice, point);
            }
            const std::string step =
                array ? formatSource("ivec3(%d, %d, 0)", point % 2, point / 2) : offset;
            text +=
                formatSource("imageStore(dst, src_pos_base_slice%d + %s, out_value_slice%d[%d]);\n",
                             slice, step.c_str(), slice, point);
        }
    }
    text += "} \n";
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
