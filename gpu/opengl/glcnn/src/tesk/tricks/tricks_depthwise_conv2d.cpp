#include "tricks_depthwise_conv2d.h"

#include "../glutil/gl.h"
#include "depthwise_source.h"
#include "record_checks.h"
#include "weight_packer.h"

namespace tesk {

void Tricks_Depthwise_Conv2d::setup(ZQLayerInfo* info) {
    const auto* const record =
        recordAs<ZQLayerInfo_DepthWiseConv2D>(info, ZQLayerType_DepthWiseConv2D);
    if (record == nullptr) return;
    const int channels = record->out_shape->channels;
    const int slices = sliceCount(channels);
    const int taps = kernel * kernel;
    if (channels == 0) {
        reportLayer(*record, "at least 1 channel", channels);
        return;
    }
    if (!holdsAtLeast(*record, "weights", taps * channels, record->weights, record->weights_count))
        return;
    if (record->has_bias != 0 &&
        !holdsAtLeast(*record, "biases", channels, record->bias, record->bias_count)) {
        return;
    }

    params.inChannels = record->in_shape->channels;
    params.outChannels = channels;
    params.inSlices = sliceCount(params.inChannels);
    params.kernelWidth = kernel;
    params.kernelHeight = kernel;
    params.padX = record->pad_w;
    params.padY = record->pad_h;
    params.strideX = record->stride_w;
    params.strideY = record->stride_h;
    params.hasBias = record->has_bias;
    params.activation = static_cast<int16_t>(record->activation);
    params.uboWeightCount = manager->uboSliceLimit > 0 ? (taps * slices * 4 + 3) / 4 : 0;

    const Extent extent = truncatedExtent(*record->out_shape, *manager);
    const Extent invocations = {groupCount(extent.width, pixelsPerInvocation),
                                groupCount(extent.height, pixelsPerInvocation)};
    int x = invocations.width, y = invocations.height, z = slices;
    chooseLocalSize(x, y, z, manager);
    params.localSizeX = x;
    params.localSizeY = y;
    params.localSizeZ = z;
    groups = groupsOver(invocations, slices, x, y, z);

    addTime(manager->setupCosts.packing, [&] { makeBuffers(*record); });
    program =
        shareProgram(programName(params, "", x, y, z), [&] { return generateSource(params); });
}

void Tricks_Depthwise_Conv2d::makeBuffers(const ZQLayerInfo_DepthWiseConv2D& record) {
    WeightPacker packed_weights(params.inChannels, params.outChannels, kernel, kernel, 1, manager);
    packed_weights.packDepthwiseFloat(record.weights);
    weights.create(packed_weights.size(), packed_weights.data(), bufferType());

    BiasPacker packed_bias(params.outChannels);
    packed_bias.packFloat(record.has_bias != 0 ? record.bias : nullptr);
    bias.create(packed_bias.size(), packed_bias.data(), bufferType());
}

unsigned int Tricks_Depthwise_Conv2d::bufferType() const {
    return params.uboWeightCount > 0 ? GL_UNIFORM_BUFFER : GL_SHADER_STORAGE_BUFFER;
}

void Tricks_Depthwise_Conv2d::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->bindBuffer(2, weights);
    program->bindBuffer(3, bias);
    program->compute(groups.x, groups.y, groups.z);
}

std::string Tricks_Depthwise_Conv2d::programName(TricksParams& params, const char*, int x, int y,
                                                 int z) {
    if (params.uboWeightCount > 0) {
        return formatSource(
            "depthwise_conv2d_ubo_kernel_%d_%d_%dIn_%dOut_a%d_s%d_s%d_bias%d_localsize_%dx%dx%d_"
            "program",
            params.kernelWidth, params.kernelHeight, params.inChannels, params.outChannels,
            params.activation, params.strideX, params.strideY, params.hasBias, x, y, z);
    }
    return formatSource(
        "depthwise_conv2d_ssbo_kernel_%d_%d_%s_In_%s_Out_a%d_s%d_s%d_bias%d_localsize_%dx%dx%d_"
        "program",
        params.kernelWidth, params.kernelHeight, channelWord(params.inChannels),
        channelWord(params.outChannels), params.activation, params.strideX, params.strideY,
        params.hasBias, x, y, z);
}

std::string Tricks_Depthwise_Conv2d::generateSource(TricksParams& params) {
    const int width = params.kernelWidth;
    const int height = params.kernelHeight;
    const int taps = width * height;
    std::string text = depthwise::declarations(params, "vec4");
    text += "void main(){ \n";
    text += depthwise::positions(params, 1);
    text += depthwise::window(-(width >> 1), -(height >> 1), width, height);
    text += depthwise::indices(params, taps);
    text += "vec4 dstData = vec4(0.0, 0.0, 0.0, 0.0);\n";
    for (int tap = 0; tap < taps; ++tap) {
        text += formatSource("dstData += weights[index_weights + %d] * srcData[%d];\n", tap, tap);
    }
    if (params.hasBias != 0) text += "dstData += bias[index_bias];\n";
    text += depthwise::activation(params, "dstData");
    text += "imageStore(dst, dst_gid, dstData);\n} \n";
    return formatSource("%s", text.c_str());
}

}  // namespace tesk
