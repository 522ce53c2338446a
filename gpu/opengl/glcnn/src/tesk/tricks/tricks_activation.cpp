#include "tricks_activation.h"

#include "../glutil/gl.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {
namespace {

/// The line of a code; null for one without.
const char* activation_line(int code) {
    switch (code) {
        case 2:
            return "out_value = max(vec4(0.0, 0.0, 0.0, 0.0), out_value);\n";
        case 8:
            return "out_value = min(max(vec4(0.0, 0.0, 0.0, 0.0), out_value), 6.0);\n";
        case 9:
            return "out_value = min(max(vec4(0.0, 0.0, 0.0, 0.0), out_value), 8.0);\n";
        case 4:
            return "out_value = 1.0 / (1.0 + exp(vec4(0.0, 0.0, 0.0, 0.0) - out_value));\n";
        default:
            return nullptr;
    }
}

}  // namespace

void Tricks_Activation::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_Activation>(info, ZQLayerType_Activation);
    if (record == nullptr) return;
    TricksParams params;
    params.inChannels = record->in_shape->channels;
    params.outChannels = record->out_shape->channels;
    params.activation = static_cast<int16_t>(record->activation_type);
    const int slices = sliceCount(params.outChannels);
    const Extent extent = truncatedExtent(*record->out_shape, *manager);
    int x = extent.width, y = extent.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(extent, slices, x, y, z);
    program = shareProgram(programName(params, "Activation", x, y, z),
                           [&] { return generateSource(params); });
}

void Tricks_Activation::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->compute(groups.x, groups.y, groups.z);
}

void Tricks_Activation::print() {
    Tarno::_LogVerbose("Tarno", "Activation layer");
}

std::string Tricks_Activation::programName(TricksParams& params, const char* prefix, int x, int y,
                                           int z) {
    return formatSource("%s_type_%d_%s_In_%s_Out_localsize_%dx%dx%d_program", prefix,
                        params.activation, channelWord(params.inChannels),
                        channelWord(params.outChannels), x, y, z);
}

std::string Tricks_Activation::generateSource(TricksParams& params) {
    std::string text = sourceHead(params) + samplerLine(params.inChannels, "src") +
                       outputLine(params.inChannels, 1) + "void main(){ \n";
    text += params.inChannels <= 4 ? "ivec2 out_pos = ivec2(gl_GlobalInvocationID.xy);\n"
                                     "ivec2 in_pos = ivec2(out_pos.x, out_pos.y);\n"
                                   : "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);\n"
                                     "ivec3 in_pos = ivec3(out_pos.x, out_pos.y, out_pos.z);\n";
    if (const char* const line = activation_line(params.activation)) {
        text += "vec4 out_value = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\n";
        text += line;
    } else {
        Tarno::_LogVerbose("Tarno", "activation operator type not support yet");
    }
    text += "imageStore(dst, out_pos, out_value);\n} \n";
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
