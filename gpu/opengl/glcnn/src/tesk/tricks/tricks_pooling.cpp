#include "tricks_pooling.h"

#include "../glutil/gl.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "source_pieces.h"

namespace tesk {
namespace {

struct Window {
    int width;
    int height;
};

constexpr Window max_windows[] = {{2, 2}, {3, 3}, {1, 4}, {2, 4}};
constexpr Window average_windows[] = {{2, 2}, {3, 3}, {4, 4}, {7, 7}, {8, 8}};

template <size_t count>
bool is_one_of(const Window (&windows)[count], const TricksParams& params) {
    for (const Window& window : windows) {
        if (window.width == params.kernelWidth && window.height == params.kernelHeight) return true;
    }
    return false;
}

/// A line for each tap, by its offset from the middle one. The middle one comes first.
template <typename Line>
std::string lines_of_taps(const TricksParams& params, const Line& line) {
    std::string text = "vec4 out_value = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));\n";
    for (int i = 0; i < params.kernelWidth * params.kernelHeight; ++i) {
        const int x = i % params.kernelWidth - (params.kernelWidth >> 1);
        const int y = i / params.kernelWidth - (params.kernelHeight >> 1);
        if (x != 0 || y != 0) text += line(x, y);
    }
    return text;
}

}  // namespace

void Tricks_Pooling::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_Pooling>(info, ZQLayerType_Pooling);
    if (record == nullptr) return;
    TricksParams params;
    params.inChannels = record->in_shape->channels;
    params.outChannels = record->out_shape->channels;
    params.kernelWidth = record->kernel_w;
    params.kernelHeight = record->kernel_h;
    params.padX = record->pad_w;
    params.padY = record->pad_h;
    params.strideX = record->stride_w;
    params.strideY = record->stride_h;
    const int slices = sliceCount(params.outChannels);
    const Extent extent = roundedExtent(*record->out_shape, *manager);
    int x = extent.width, y = extent.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(extent, slices, x, y, z);
    program =
        shareProgram(programName(params, prefix, x, y, z), [&] { return generateSource(params); });
}

void Tricks_Pooling::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->compute(groups.x, groups.y, groups.z);
}

void Tricks_Pooling::print() {
    Tarno::_LogVerbose("Tarno", "Pooling layer");
}

std::string Tricks_Pooling::programName(TricksParams& params, const char* name_prefix, int x, int y,
                                        int z) {
    return formatSource("%s_pooling_kernel_%d_%d_%s_In_%s_Out_s%d_%d_localsize_%dx%dx%d_program",
                        name_prefix, params.kernelWidth, params.kernelHeight,
                        channelWord(params.inChannels), channelWord(params.outChannels),
                        params.strideX, params.strideY, x, y, z);
}

std::string Tricks_Pooling::generateSource(TricksParams& params) {
    std::string text = sourceHead(params) + samplerLine(params.inChannels, "src") +
                       outputLine(params.inChannels, 1) + "void main(){ \n";
    const bool array = params.inChannels > 4;
    const int column = (params.kernelWidth >> 1) - params.padX;
    const int row = (params.kernelHeight >> 1) - params.padY;
    text += formatSource(
        array ? "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);\n"
                "ivec3 in_pos = ivec3(out_pos.x * %d + %d, out_pos.y * %d + %d, out_pos.z);\n"
              : "ivec2 out_pos = ivec2(gl_GlobalInvocationID.xy);\n"
                "ivec2 in_pos = ivec2(out_pos.x * %d + %d, out_pos.y * %d + %d);\n",
        params.strideX, column, params.strideY, row);
    text += windowLines(params);
    text += "imageStore(dst, out_pos, out_value);\n} \n";
    return formatSource("%s", text.c_str());
}

std::string Tricks_Pooling_Max::windowLines(const TricksParams& params) {
    if (!is_one_of(max_windows, params)) {
        Tarno::_LogVerbose("Tarno", "max pooling kernel_%d_%d not support yet", params.kernelWidth,
                           params.kernelHeight);
        return "";
    }
    return lines_of_taps(params, [](int x, int y) {
        return formatSource(
            "out_value = max(out_value, texelFetchOffset(src, in_pos, 0, ivec2(%d, %d)));\n", x, y);
    });
}

std::string Tricks_Pooling_Avg::windowLines(const TricksParams& params) {
    if (!is_one_of(average_windows, params)) {
        Tarno::_LogVerbose("Tarno", "avg pooling kernel_%d_%d not support yet", params.kernelWidth,
                           params.kernelHeight);
        return "";
    }
    return lines_of_taps(params,
                         [](int x, int y) {
                             return formatSource(
                                 "out_value += texelFetchOffset(src, in_pos, 0, ivec2(%d, %d));\n",
                                 x, y);
                         }) +
           formatSource("out_value /= %d.0;\n", params.kernelWidth * params.kernelHeight);
}

}  // namespace tesk
