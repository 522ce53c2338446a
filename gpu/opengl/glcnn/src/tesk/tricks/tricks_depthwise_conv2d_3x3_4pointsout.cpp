#include "tricks_depthwise_conv2d_3x3_4pointsout.h"

#include <cstring>
#include <vector>

#include "depthwise_source.h"
#include "platform/tn_core.h"
#include "record_checks.h"
#include "weight_packer.h"

namespace tesk {
namespace {

/// `weight` and `bias` format an entry of the two arrays as a vec4.
std::string four_point_main(const TricksParams& params, const char* weight, const char* bias) {
    constexpr int side = 4;  // of the window that the four pixels share
    constexpr int kernel = 3;
    std::string text = "void main(){ \n";
    text += depthwise::positions(params, 2);
    text += depthwise::window(-1, -1, side, side);
    text += depthwise::indices(params, kernel * kernel);
    text += "vec4 dstData[4];\n";
    for (int point = 0; point < 4; ++point) {
        text += formatSource("dstData[%d] = vec4(0.0, 0.0, 0.0, 0.0);\n", point);
    }
    for (int point = 0; point < 4; ++point) {
        for (int tap = 0; tap < kernel * kernel; ++tap) {
            const int column = point % 2 + tap % kernel;
            const int row = point / 2 + tap / kernel;
            text += formatSource("dstData[%d] += ", point) + formatSource(weight, tap) +
                    formatSource(" * srcData[%d];\n", row * side + column);
        }
    }
    for (int point = 0; point < 4; ++point) {
        if (params.hasBias != 0) text += formatSource("dstData[%d] += %s;\n", point, bias);
    }
    for (int point = 0; point < 4; ++point) {
        text += depthwise::activation(params, formatSource("dstData[%d]", point).c_str());
    }
    for (int point = 0; point < 4; ++point) {
        const char* const column = point % 2 == 0 ? ",    " : " + 1,";
        const char* const row = point / 2 == 0 ? ",    " : " + 1,";
        if (params.outChannels > 4) {
            text += formatSource(
                "imageStore(dst, ivec3(dst_gid.x * 2%s dst_gid.y * 2%s dst_gid.z), dstData[%d]);\n",
                column, row, point);
        } else {
            text += formatSource(
                "imageStore(dst, ivec2(dst_gid.x * 2%s dst_gid.y * 2%s), dstData[%d]);\n", column,
                point / 2 == 0 ? "" : " + 1", point);
        }
    }
    return text + "} \n";
}

}  // namespace

std::string Tricks_Depthwise_conv2d_3x3_4PointsOut::programName(TricksParams& params, const char*,
                                                                int x, int y, int z) {
    if (params.uboWeightCount > 0) {
        return formatSource(
            "depthwise_conv2d_ubo_4PointsOut_kernel_%d_%d_%dIn_%dOut_a%d_s%d_s%d_bias%d_"
            "localsize_%dx%dx%d_program",
            params.kernelWidth, params.kernelHeight, params.inChannels, params.outChannels,
            params.activation, params.strideX, params.strideY, params.hasBias, x, y, z);
    }
    return formatSource(
        "depthwise_conv2d_ssbo_4PointsOut_kernel_%d_%d_%s_in_%s_out_a%d_s%d_s%d_bias%d_"
        "localsize_%dx%dx%d_program",
        params.kernelWidth, params.kernelHeight, channelWord(params.inChannels),
        channelWord(params.outChannels), params.activation, params.strideX, params.strideY,
        params.hasBias, x, y, z);
}

std::string Tricks_Depthwise_conv2d_3x3_4PointsOut::generateSource(TricksParams& params) {
    const std::string text =
        depthwise::declarations(params, "vec4") +
        four_point_main(params, "weights[index_weights + %d]", "bias[index_bias]");
    return formatSource("%s", text.c_str());
}

void Tricks_Depthwise_conv2d_3x3_4PointsOut::print() {
    Tarno::_LogVerbose("Tarno", "Depthwise convolution 3x3 layer.");
}

void Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2::setup(ZQLayerInfo* info) {
    const auto* const record =
        recordAs<ZQLayerInfo_DepthWiseConv2D>(info, ZQLayerType_DepthWiseConv2D);
    if (record == nullptr) return;
    if (record->out_shape->channels <= 4 || record->in_shape->channels <= 4) {
        reportLayer(*record, "more than 4 channels", record->out_shape->channels);
        return;
    }
    const int channels = record->out_shape->channels;
    if (!holdsAtLeast(*record, "half weights", kernel * kernel * channels, record->weights_half,
                      record->weights_count)) {
        return;
    }
    if (record->has_bias != 0 &&
        !holdsAtLeast(*record, "half biases", channels, record->bias_half, record->bias_count)) {
        return;
    }
    Tricks_Depthwise_conv2d_3x3_4PointsOut::setup(info);
}

std::string Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2::generateSource(
    TricksParams& params) {
    const std::string text = depthwise::declarations(params, "uvec2") +
                             "vec4 unpack2Vec(in uvec2 wt){\n"
                             "return vec4(unpackHalf2x16(wt.x), unpackHalf2x16(wt.y));\n"
                             "}\n" +
                             four_point_main(params, "unpack2Vec(weights[index_weights + %d])",
                                             "unpack2Vec(bias[index_bias])");
    return formatSource("%s", text.c_str());
}

void Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2::makeBuffers(
    const ZQLayerInfo_DepthWiseConv2D& record) {
    constexpr size_t entry = 8;  // bytes of four halves
    // A uniform block strides arrays by 16 bytes. A storage block packs the entries, and gets as
    // many bytes all the same: this class and the one with floats share their names, and whose
    // program it is decides who was set up first.
    const size_t stride = params.uboWeightCount > 0 ? 16 : entry;
    const auto create = [&](tesk::Buffer& buffer, const void* data, int size) {
        const size_t entries = static_cast<size_t>(size) / entry;
        std::vector<unsigned char> bytes(entries * 16, 0);
        for (size_t i = 0; i < entries; ++i) {
            std::memcpy(&bytes[i * stride], static_cast<const unsigned char*>(data) + i * entry,
                        entry);
        }
        buffer.create(static_cast<int>(bytes.size()), bytes.data(), bufferType());
    };
    WeightPacker packed_weights(params.inChannels, params.outChannels, kernel, kernel, 1, manager);
    packed_weights.packDepthwiseHalf(record.weights_half);
    create(weights, packed_weights.data(), packed_weights.size());

    BiasPacker packed_bias(params.outChannels);
    packed_bias.packHalfPlain(record.has_bias != 0 ? record.bias_half : nullptr);
    create(bias, packed_bias.data(), packed_bias.size());
}

}  // namespace tesk
