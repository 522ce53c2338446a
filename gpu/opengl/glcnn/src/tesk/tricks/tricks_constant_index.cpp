#include "tricks_constant_index.h"

#include <algorithm>
#include <cstring>

#include "../glutil/gl.h"
#include "platform/tn_core.h"
#include "weight_packer.h"

namespace tesk {
namespace {

/// `uvec4 bias[256]` of the post source.
constexpr int bias_slices = 256;

}  // namespace

Tricks_Constant_index::Tricks_Constant_index(tesk::ComputeProgramManager* manager)
    : Tricks_Constant_index(manager, {"Conv2D", "I am Tricks_Conv2d_CI."}) {}

void Tricks_Constant_index::Pass::dispatch() const {
    program->compute(static_cast<unsigned int>(groupsX), static_cast<unsigned int>(groupsY),
                     static_cast<unsigned int>(groupsZ));
}

void Tricks_Constant_index::setup(ZQLayerInfo* layer) {
    ConvolutionRecord record;
    if (!record.read(layer, form.kernelWidth, form.kernelHeight)) return;
    TricksParams& params = record.params;
    inSlices = sliceCount(params.inChannels);
    outSlices = sliceCount(params.outChannels);
    if (outSlices > bias_slices) {
        Tarno::_LogError("Tarno", "layer %d: expected at most %d output channels, found %d",
                         record.id, 4 * bias_slices, params.outChannels);
        return;
    }
    addTime(manager->setupCosts.packing, [&] { makeBuffers(record, params); });

    const auto size = [this](Pass& pass, const Extent& extent, int slices) {
        int x = extent.width, y = extent.height, z = slices;
        chooseLocalSize(x, y, z, manager);
        pass.groupsX = groupCount(extent.width, x);
        pass.groupsY = groupCount(extent.height, y);
        pass.groupsZ = groupCount(slices, z);
    };
    params.localSizeZ = slicesPerBlock;
    chooseLocalSize(params.localSizeX, params.localSizeY, params.localSizeZ, manager);
    const Extent output = roundedExtent(*record.out_shape, *manager);
    size(pre, output, outSlices);
    size(main, form.extent(record, *manager), 1);
    size(post, output, outSlices);

    const int x = params.localSizeX, y = params.localSizeY, z = params.localSizeZ;
    ShaderFormat& format = ShaderFormat::instance();
    main.program = shareProgram(programName(params, form.prefix, x, y, z),
                                [&] { return generateSource(params); });
    pre.program = shareProgram(preProgramName(params, x, y, z),
                               [&] { return std::string(format.constant_index_pre(params)); });
    const bool has_work = params.hasBias != 0 || params.activation > 1;
    post.program = nullptr;
    if (has_work && pre.program != nullptr && pre.program->isLinked()) {
        post.program = shareProgram(postProgramName(params, x, y, z), [&] {
            return std::string(format.constant_index_post(params));
        });
    }
}

void Tricks_Constant_index::makeBuffers(const ConvolutionRecord& record, TricksParams& params) {
    WeightPacker packer(params.inChannels, params.outChannels, params.kernelWidth,
                        params.kernelHeight, 1, manager);
    packer.packFloatConstantIndex(record.weights, &blockStride, &slicesPerBlock);
    params.slicesPerDispatch = slicesPerBlock;
    blockBytes = slicesPerBlock * params.kernelWidth * params.kernelHeight * 64;

    // Split over input slices. One slice may be more than a uniform block: only parts of a buffer
    // are ever bound.
    const int limit = std::max(manager->maxUniformBlockSize, 1);
    int count = std::min(groupCount(packer.size(), limit), inSlices);
    while (inSlices % count != 0)
        ++count;
    const int bytes = packer.size() / count;
    weightBuffers.clear();
    for (int i = 0; i < count; ++i) {
        weightBuffers.push_back(std::make_unique<Buffer>(
            bytes, static_cast<const unsigned char*>(packer.data()) + i * bytes,
            GL_UNIFORM_BUFFER));
    }

    BiasPacker bias(params.outChannels);
    bias.packHalf(record.bias_half);
    std::vector<unsigned char> biases(bias_slices * 16, 0);
    std::memcpy(biases.data(), bias.data(), static_cast<size_t>(bias.size()));
    biasBuffer.create(static_cast<int>(biases.size()), biases.data(), GL_UNIFORM_BUFFER);
}

void Tricks_Constant_index::compute(tesk::Image* input, tesk::Image* output) {
    static const std::string offset_name = "dstOutZOffset";
    static const std::string bias_block = "bias_buffer";
    output->texture();
    if (!useProgram(pre.program)) return;
    pre.program->bindImage(0, GL_WRITE_ONLY, *output);
    pre.dispatch();

    if (!useProgram(main.program)) return;
    main.program->setUnifromTexture("src", 0, *input);
    main.program->bindImage(1, GL_WRITE_ONLY, *output);
    main.program->setUnifromTexture("dstIn", 4, *output);
    // Counts of the record: the client's images may have other ones.
    const int blocks = groupCount(outSlices, slicesPerBlock);
    const int slices_per_buffer = groupCount(inSlices, static_cast<int>(weightBuffers.size()));
    for (int slice = 0; slice < inSlices; ++slice) {
        Buffer& weights = *weightBuffers[static_cast<size_t>(slice / slices_per_buffer)];
        const int slice_in_buffer = slice % slices_per_buffer;
        main.program->setUniform1i("layerId", slice);
        for (int block = 0; block < blocks; ++block) {
            const int offset = blockStride * (block + blocks * slice_in_buffer);
            main.program->setUniform1i(offset_name, block * slicesPerBlock);
            main.program->bindBufferRange(2, weights, static_cast<unsigned int>(offset),
                                          static_cast<unsigned int>(blockBytes));
            main.dispatch();
        }
    }

    if (post.program == nullptr || !useProgram(post.program)) return;
    post.program->setUnifromTexture("src", 0, *output);
    post.program->bindImage(1, GL_WRITE_ONLY, *output);
    post.program->bindUniformBlockIdx(bias_block, biasBuffer, 2);
    post.dispatch();
}

void Tricks_Constant_index::print() {
    Tarno::_LogVerbose("Tarno", "%s", form.printed);
}

std::string Tricks_Constant_index::generateSource(TricksParams& params) {
    return form.text(params);
}

std::string Tricks_Constant_index::programName(TricksParams& params, const char* prefix, int x,
                                               int y, int z) {
    return formatSource(
        "%s_ubo_constant_index_kernel_%d_%d_%s_In_%d_Out_padding_%d_%d_s%d_%d_dilation_%d_%d_"
        "localsize_%dx%dx%d_program",
        prefix, params.kernelWidth, params.kernelHeight, channelWord(params.inChannels),
        params.outChannels, params.padX, params.padY, params.strideX, params.strideY,
        params.dilationX, params.dilationY, x, y, z);
}

std::string Tricks_Constant_index::preProgramName(TricksParams& params, int x, int y, int z) {
    return formatSource("ubo_constant_index_%s_Out_localsize_%dx%dx%d_pre_program",
                        channelWord(params.outChannels), x, y, z);
}

std::string Tricks_Constant_index::postProgramName(TricksParams& params, int x, int y, int z) {
    return formatSource(
        "ubo_constant_index_%s_Out_localsize_%dx%dx%d_activation_%d_bias_%d_post_program",
        channelWord(params.outChannels), x, y, z, params.activation, params.hasBias);
}

}  // namespace tesk
