#include "tricks_upsampling_nearest.h"

#include "../glutil/gl.h"
#include "crossplatform/src/common/src/half_float.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {

void Tricks_UpSampling_Nearest::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_Upsampling>(info, ZQLayerType_Upsampling);
    if (record == nullptr) return;
    TricksParams params;
    params.inChannels = record->in_shape->channels;
    params.outChannels = record->out_shape->channels;
    const int slices = sliceCount(params.inChannels);
    const Extent in = truncatedExtent(*record->in_shape, *manager);
    const Extent out = truncatedExtent(*record->out_shape, *manager);
    if (out.width == 4 * in.width && out.height == in.height) {
        constexpr const char* name = "upsampling_sigo_denoise_program";
        groups = groupsOver(in, slices, 8, 8, 1);
        program = shareProgram(name, [&] { return catalogueSource(name); });
        return;
    }
    const float scale = Tarno::half_to_float(record->scale);
    int x = in.width, y = in.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(in, slices, x, y, z);
    program = shareProgram(programName(params, "UpSampling_Nearest", scale, x, y, z),
                           [&] { return generateSource(params, scale); });
}

void Tricks_UpSampling_Nearest::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->bindImage(0, GL_READ_ONLY, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->compute(groups.x, groups.y, groups.z);
}

std::string Tricks_UpSampling_Nearest::programName(TricksParams& params, const char* prefix,
                                                   float scale, int x, int y, int z) {
    // A half is below 65536, or no number at all.
    const int factor = scale > -65536.0f && scale < 65536.0f ? static_cast<int>(scale) : 0;
    return formatSource("%s_%s_In_%s_Out_upscale_factor_%d_localsize_%dx%dx%d_program", prefix,
                        channelWord(params.inChannels), channelWord(params.outChannels), factor, x,
                        y, z);
}

std::string Tricks_UpSampling_Nearest::generateSource(TricksParams& params, float scale) {
    const bool array = params.inChannels > 4;
    const char* const image = array ? "image2DArray" : "image2D";
    const int factor = scale == 4.0f ? 4 : 2;
    std::string text = sourceHead(params);
    text += formatSource(
        "layout(rgba16f, binding = 0) readonly uniform lowp %s src;\n"
        "layout(rgba16f, binding = 1) writeonly uniform lowp %s dst;\n"
        "void main(){ \n",
        image, image);
    text += array ? "ivec3 pos = ivec3(gl_GlobalInvocationID.xyz);\n"
                  : "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);\n";
    text += "vec4 srcData = imageLoad(src, pos);\n";
    for (int i = 0; i < factor * factor; ++i) {
        text += formatSource(
            array ? "imageStore(dst, ivec3(pos.x * %d + %d, pos.y * %d + %d, pos.z), srcData);\n"
                  : "imageStore(dst, ivec2(pos.x * %d + %d, pos.y * %d + %d), srcData);\n",
            factor, i % factor, factor, i / factor);
    }
    text += "} \n";
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
