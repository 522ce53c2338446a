#include "tricks_group_conv2d_3x3_basic.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "../glutil/gl.h"
#include "depthwise_source.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "source_pieces.h"
#include "weight_packer.h"

namespace tesk {
namespace {

constexpr int taps = 9;
constexpr int entry_bytes = 16;      // a uvec4
constexpr int entries_per_tap = 2;   // a 4 by 4 block of halves
constexpr int ubo_bias_count = 256;  // entries of the uniform block

/// Storage is as long as the data, a uniform block as long as its declaration says.
void create_buffer(tesk::Buffer& buffer, const void* data, int size, int block_entries) {
    if (block_entries == 0) {
        buffer.create(size, data, GL_SHADER_STORAGE_BUFFER);
        return;
    }
    std::vector<unsigned char> block(static_cast<size_t>(block_entries) * entry_bytes, 0);
    std::memcpy(block.data(), data, static_cast<size_t>(size));
    buffer.create(static_cast<int>(block.size()), block.data(), GL_UNIFORM_BUFFER);
}

/// The padding counts in dilated taps. A record's 0 is no dilation.
int window_offset(int kernel, int pad, int dilation) {
    return (kernel >> 1) - pad / std::max(dilation, 1);
}

}  // namespace

void Tricks_Group_Conv2d_3x3_Basic::setup(ZQLayerInfo* info) {
    const auto* const record = recordAs<ZQLayerInfo_Conv2D>(info, ZQLayerType_Conv2D);
    if (record == nullptr) return;
    const int group_count = static_cast<int>(record->effective_groups());
    const int in_channels = record->in_shape->channels;
    const int out_channels = record->out_shape->channels;
    if (in_channels != 4 * group_count || out_channels != 4 * group_count) {
        const std::string found = formatSource("%d inputs and %d outputs in %d groups", in_channels,
                                               out_channels, group_count);
        reportLayer(*record, "4 inputs and 4 outputs in a group", found.c_str());
        return;
    }
    if (!holdsAtLeast(*record, "weights", taps * 4LL * out_channels, record->weights_half,
                      record->weights_count)) {
        return;
    }
    if (record->has_bias != 0 &&
        !holdsAtLeast(*record, "biases", out_channels, record->bias_half, record->bias_count)) {
        return;
    }

    const int slices = sliceCount(out_channels);
    const int entries = slices * taps * entries_per_tap;
    if (manager->uboSliceLimit > 0) {
        // One text serves layers of all slice counts: their names are the same.
        params.uboWeightCount = std::min(manager->maxUniformVec4Count, 4096);
        if (entries > params.uboWeightCount || slices > ubo_bias_count) {
            const std::string expected =
                formatSource("weights of at most %d bytes in a uniform block",
                             params.uboWeightCount * entry_bytes);
            reportLayer(*record, expected.c_str(), entries * entry_bytes);
            return;
        }
    }

    params.inChannels = in_channels;
    params.outChannels = out_channels;
    params.inSlices = sliceCount(in_channels);
    params.inSliceStride = taps * entries_per_tap;
    params.kernelWidth = 3;
    params.kernelHeight = 3;
    params.padX = record->pad_w;
    params.padY = record->pad_h;
    params.strideX = record->stride_w;
    params.strideY = record->stride_h;
    params.dilationX = record->dilation_w;
    params.dilationY = record->dilation_h;
    params.hasBias = record->has_bias;
    params.activation = static_cast<int16_t>(record->activation);
    params.groups = group_count;

    const Extent extent = roundedExtent(*record->out_shape, *manager);
    int x = extent.width, y = extent.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(extent, slices, x, y, z);

    addTime(manager->setupCosts.packing, [&] {
        WeightPacker packed_weights(in_channels, out_channels, 3, 3, group_count, manager);
        packed_weights.packGroupHalf(record->weights_half);
        create_buffer(weights, packed_weights.data(), packed_weights.size(), params.uboWeightCount);
        BiasPacker packed_bias(out_channels);
        packed_bias.packHalf(record->has_bias != 0 ? record->bias_half : nullptr);
        create_buffer(bias, packed_bias.data(), packed_bias.size(),
                      params.uboWeightCount > 0 ? ubo_bias_count : 0);
    });
    program = shareProgram(programName(params, "Group_Conv2D", x, y, z),
                           [&] { return generateSource(params); });
}

void Tricks_Group_Conv2d_3x3_Basic::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->bindBuffer(2, weights);
    program->bindBuffer(3, bias);
    program->compute(groups.x, groups.y, groups.z);
}

void Tricks_Group_Conv2d_3x3_Basic::print() {
    Tarno::_LogVerbose("Tarno", "I am Tricks_Group_Conv2d_Basic_3x3.");
}

std::string Tricks_Group_Conv2d_3x3_Basic::programName(TricksParams& params, const char* prefix,
                                                       int x, int y, int z) {
    const int group_count = std::max(params.groups, 1);
    return formatSource(
        "%s_%s_basic_kernel_%d_%d_a%d_padding_%d_%d_s%d_%d_dilation_%d_%d_groupChannel_in%d_out%d_"
        "bias%d_localsize_%dx%dx%d_program",
        prefix, params.uboWeightCount > 0 ? "ubo" : "ssbo", params.kernelWidth, params.kernelHeight,
        params.activation, params.padX, params.padY, params.strideX, params.strideY,
        params.dilationX, params.dilationY, params.inChannels / group_count,
        params.outChannels / group_count, params.hasBias, x, y, z);
}

std::string Tricks_Group_Conv2d_3x3_Basic::generateSource(TricksParams& params) {
    std::string text = sourceHead(params);
    text +=
        "uniform lowp sampler2DArray src;\n"
        "layout(rgba16f, binding = 1) writeonly uniform lowp image2DArray dst;\n";
    if (params.uboWeightCount > 0) {
        text += formatSource(
            "layout(std140, binding = 2) uniform weight_buffer{\n"
            "uvec4 weights[%d]; //o/4 x 4 x h x w x 4\n"
            "};\n"
            "layout(std140, binding = 3) uniform bias_buffer{\n"
            "uvec4 bias[%d]; //o/4 x 4\n"
            "};\n",
            params.uboWeightCount, ubo_bias_count);
    } else {
        text +=
            "layout(std430, binding = 2) buffer weight_buffer{\n"
            "uvec4 weights[]; //o/4 x 4 x h x w x 4\n"
            "};\n"
            "layout(std430, binding = 3) buffer bias_buffer{\n"
            "uvec4 bias[]; //o/4 x 4\n"
            "};\n";
    }
    text +=
        "mat4 unpack2Mat(in uvec4 wt1, in uvec4 wt2){\n"
        "mat4 tmp_w;\n"
        "tmp_w[0] = vec4(unpackHalf2x16(wt1.x), unpackHalf2x16(wt1.y));\n"
        "tmp_w[1] = vec4(unpackHalf2x16(wt1.z), unpackHalf2x16(wt1.w));\n"
        "tmp_w[2] = vec4(unpackHalf2x16(wt2.x), unpackHalf2x16(wt2.y));\n"
        "tmp_w[3] = vec4(unpackHalf2x16(wt2.z), unpackHalf2x16(wt2.w));\n"
        "return tmp_w;\n"
        "}\n"
        "void main(){ \n"
        "ivec3 dst_gid = ivec3(gl_GlobalInvocationID.xyz);\n";
    text += formatSource(
        "ivec3 src_gid = ivec3(dst_gid.x * %d, dst_gid.y * %d, dst_gid.z) + ivec3(%d, %d, 0);\n",
        params.strideX, params.strideY,
        window_offset(params.kernelWidth, params.padX, params.dilationX),
        window_offset(params.kernelHeight, params.padY, params.dilationY));
    text += depthwise::window(-1, -1, 3, 3);
    text += formatSource("int index_weights = dst_gid.z * %d;\n", taps * entries_per_tap);
    text += "vec4 dstData = vec4(0.0, 0.0, 0.0, 0.0);\n";
    for (int tap = 0; tap < taps; ++tap) {
        text += formatSource(
            "dstData += (unpack2Mat(weights[index_weights + %d], weights[index_weights + %d])) * "
            "srcData[%d];\n",
            tap * entries_per_tap, tap * entries_per_tap + 1, tap);
    }
    if (params.hasBias != 0) {
        text +=
            "dstData += vec4(unpackHalf2x16(bias[dst_gid.z].x), "
            "unpackHalf2x16(bias[dst_gid.z].y));\n";
    }
    text += depthwise::activation(params, "dstData");
    text += "imageStore(dst, dst_gid, dstData);\n} \n";
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
