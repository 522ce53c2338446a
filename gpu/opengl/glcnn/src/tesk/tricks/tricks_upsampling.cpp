#include "tricks_upsampling.h"

#include "../glutil/gl.h"
#include "crossplatform/src/common/src/half_float.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {
namespace {

/// How many input pixels one output pixel goes on.
float scale_factor(int in, int out, bool align) {
    if (out < 2) return 0.0f;
    return align ? static_cast<float>(in - 1) / static_cast<float>(out - 1)
                 : static_cast<float>(in) / static_cast<float>(out);
}

}  // namespace

void Tricks_UpSampling::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_Upsampling>(info, ZQLayerType_Upsampling);
    if (record == nullptr) return;
    TricksParams params;
    params.inChannels = record->in_shape->channels;
    params.outChannels = record->out_shape->channels;
    const int slices = sliceCount(params.outChannels);
    const Extent in = truncatedExtent(*record->in_shape, *manager);
    const Extent out = truncatedExtent(*record->out_shape, *manager);
    scale = Tarno::half_to_float(record->scale);
    _width_scale_factor = scale_factor(in.width, out.width, record->align != 0);
    _height_scale_factor = scale_factor(in.height, out.height, record->align != 0);

    int x = out.width, y = out.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(out, slices, x, y, z);
    program = shareProgram(programName(params, "UpSampling", record->align, x, y, z),
                           [&] { return generateSource(params, record->align); });
}

void Tricks_UpSampling::compute(tesk::Image* input, tesk::Image* output) {
    static const std::string width_factor = "_width_scale_factor";
    static const std::string height_factor = "_height_scale_factor";
    if (!useProgram(program)) return;
    program->bindImage(0, GL_READ_ONLY, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->setUniform1f(width_factor, _width_scale_factor);
    program->setUniform1f(height_factor, _height_scale_factor);
    program->compute(groups.x, groups.y, groups.z);
}

std::string Tricks_UpSampling::programName(TricksParams& params, const char* prefix, int align,
                                           int x, int y, int z) {
    return formatSource("%s_alignCorner_%d_%s_In_%s_Out_localsize_%dx%dx%d_program", prefix, align,
                        channelWord(params.inChannels), channelWord(params.outChannels), x, y, z);
}

std::string Tricks_UpSampling::generateSource(TricksParams& params, int align) {
    const bool array = params.inChannels > 4;
    const char* const image = array ? "image2DArray" : "image2D";
    const char* const vector = array ? "ivec3" : "ivec2";
    const char* const slice = array ? ", pos.z" : "";
    const char* const size = array ? ".xy" : "";
    std::string text = sourceHead(params);
    text += formatSource(
        "layout(rgba16f, binding = 0) readonly uniform lowp %s src;\n"
        "layout(rgba16f, binding = 1) writeonly uniform lowp %s dst;\n"
        "uniform float _width_scale_factor;\n"
        "uniform float _height_scale_factor;\n",
        image, image);
    text +=
        "float linear_upsampling_compute_source_index(float scale, int dst_index, int "
        "align_corners){\n"
        "if (align_corners > 0) return scale * float(dst_index);\n"
        "float src_idx = scale * (float(dst_index) + 0.5) - 0.5;\n"
        "return src_idx < 0.0 ? 0.0 : src_idx;\n"
        "}\n"
        "void main(){ \n";
    text += formatSource(
        "%s pos = %s(gl_GlobalInvocationID.%s);\n"
        "ivec2 size1 = imageSize(src)%s;\n"
        "ivec2 size2 = imageSize(dst)%s;\n",
        vector, vector, array ? "xyz" : "xy", size, size);
    // The last work groups of a row go on where the next row begins: both store the same value.
    text +=
        "int width1 = size1.x;\n"
        "int height1 = size1.y;\n"
        "int width2 = size2.x;\n"
        "int height2 = size2.y;\n"
        "int index = pos.y * width2 + pos.x;\n"
        "if (index < height2 * width2)\n"
        "{\n"
        "int w2 = index % width2;\n"
        "int h2 = index / width2;\n";
    text += formatSource(
        "float h1r = linear_upsampling_compute_source_index(_height_scale_factor, h2, %d);\n"
        "float w1r = linear_upsampling_compute_source_index(_width_scale_factor, w2, %d);\n",
        align, align);
    text +=
        "int h1 = int(h1r);\n"
        "int h1p = (h1 < height1 - 1) ? 1 : 0;\n"
        "float h1lambda = h1r - float(h1);\n"
        "float h0lambda = 1.0 - h1lambda;\n"
        "int w1 = int(w1r);\n"
        "int w1p = (w1 < width1 - 1) ? 1 : 0;\n"
        "float w1lambda = w1r - float(w1);\n"
        "float w0lambda = 1.0 - w1lambda;\n";
    const char* const corners[] = {"w1, h1", "w1 + w1p, h1", "w1, h1 + h1p", "w1 + w1p, h1 + h1p"};
    for (int i = 0; i < 4; ++i) {
        text += formatSource("vec4 srcValue_%d = imageLoad(src, %s(%s%s));\n", i, vector,
                             corners[i], slice);
    }
    text += formatSource(
        "vec4 val = h0lambda * (w0lambda * srcValue_0 + w1lambda * srcValue_1) + "
        "h1lambda * (w0lambda * srcValue_2 + w1lambda * srcValue_3);\n"
        "imageStore(dst, %s(w2, h2%s), val);\n"
        "}\n"
        "} \n",
        vector, slice);
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
