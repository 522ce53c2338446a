#include "packed_convolution.h"

#include <algorithm>
#include <cstring>

#include "../glutil/gl.h"
#include "weight_packer.h"

namespace tesk {
namespace {

/// `uvec4 bias[256]` of the sources: a uniform block must be there in full.
constexpr int uniform_bias_slices = 256;
constexpr int bytes_per_slice_of_bias = 16;
/// `uvec4 weights[4096]` at most. Drivers allow up to 2 GiB, and every buffer is a whole block.
constexpr int most_weight_block = 4096 * 16;

/// `size` bytes from `data`, zeros behind the `available` ones.
std::vector<unsigned char> padded(const void* data, int available, int size) {
    std::vector<unsigned char> bytes(static_cast<size_t>(std::max(size, 1)), 0);
    const int copied = std::min(size, available);
    if (copied > 0) std::memcpy(bytes.data(), data, static_cast<size_t>(copied));
    return bytes;
}

}  // namespace

int uniformBlockCount(long long bytes, int slices, const ComputeProgramManager& manager) {
    if (manager.uboSliceLimit <= 0 || manager.maxUniformBlockSize <= 0) return 0;
    if (slices > uniform_bias_slices) return 0;
    long long count = (bytes + manager.maxUniformBlockSize - 1) / manager.maxUniformBlockSize;
    while (count <= slices && slices % count != 0)
        ++count;
    return count > slices || count > manager.uboSliceLimit ? 0 : static_cast<int>(count);
}

void PackedConvolution::setup(ConvolutionRecord& record, const Coverage& coverage,
                              const ComputeProgramManager& manager) {
    TricksParams& params = record.params;
    WeightPacker weights(params.inChannels, params.outChannels, params.kernelWidth,
                         params.kernelHeight, 1, &manager);
    weights.packHalf(record.weights_half);
    makeBuffers(record, coverage, static_cast<const unsigned char*>(weights.data()), weights.size(),
                manager);

    const int out_slices =
        groupCount(sliceCount(params.outChannels), std::max(blockCount, 1));
    const int width = groupCount(coverage.extent.width, coverage.pixels);
    const int height = groupCount(coverage.extent.height, coverage.pixels);
    params.localSizeX = width;
    params.localSizeY = height;
    params.localSizeZ = out_slices;
    chooseLocalSize(params.localSizeX, params.localSizeY, params.localSizeZ, &manager);
    groupsX = groupCount(width, params.localSizeX);
    groupsY = groupCount(height, params.localSizeY);
    groupsZ = groupCount(groupCount(out_slices, coverage.slices), params.localSizeZ);
}

void PackedConvolution::makeBuffers(ConvolutionRecord& record, const Coverage& coverage,
                                    const unsigned char* weights, int bytes,
                                    const ComputeProgramManager& manager) {
    const int slices = sliceCount(record.params.outChannels);
    const int slice_bytes = bytes / slices;
    const bool fits = bytes <= manager.maxUniformBlockSize;
    blockCount =
        coverage.split_when_large && fits ? 0 : uniformBlockCount(bytes, slices, manager);
    // The last invocation of a form with several slices reads on to whole ones: zeros stand there.
    const auto whole = [&](int count) {
        return groupCount(count, coverage.slices) * coverage.slices;
    };
    const int block_limit = std::min(manager.maxUniformBlockSize, most_weight_block);
    if (blockCount > 0) {
        const int slices_per_block = slices / blockCount;
        const int read = whole(slices_per_block);
        const int last_bias = (blockCount - 1) * slices_per_block + read;
        if (read > block_limit / slice_bytes || last_bias > uniform_bias_slices) blockCount = 0;
    }

    BiasPacker bias(record.params.outChannels);
    bias.packHalf(record.bias_half);
    weightBuffers.clear();
    record.params.uboWeightCount = 0;
    if (blockCount == 0) {
        const std::vector<unsigned char> all = padded(weights, bytes, whole(slices) * slice_bytes);
        weightBuffers.push_back(std::make_unique<Buffer>(static_cast<int>(all.size()), all.data(),
                                                         GL_SHADER_STORAGE_BUFFER));
        const std::vector<unsigned char> biases =
            padded(bias.data(), bias.size(), whole(slices) * bytes_per_slice_of_bias);
        biasBuffer.create(static_cast<int>(biases.size()), biases.data(), GL_SHADER_STORAGE_BUFFER);
        return;
    }
    const int block_bytes = groupCount(bytes, blockCount);
    // Programs are shared under names that do not tell the number of output slices, so all of them
    // declare the largest block there is, and each buffer is one.
    const int entries = block_limit / 16;
    const int padded_bytes = entries * 16;
    record.params.uboWeightCount = entries;
    for (int block = 0; block < blockCount; ++block) {
        const int start = block * block_bytes;
        const std::vector<unsigned char> part =
            padded(weights + start, std::min(block_bytes, bytes - start), padded_bytes);
        weightBuffers.push_back(std::make_unique<Buffer>(static_cast<int>(part.size()), part.data(),
                                                         GL_UNIFORM_BUFFER));
    }
    const std::vector<unsigned char> biases =
        padded(bias.data(), bias.size(), uniform_bias_slices * bytes_per_slice_of_bias);
    biasBuffer.create(static_cast<int>(biases.size()), biases.data(), GL_UNIFORM_BUFFER);
}

void PackedConvolution::run(tesk::Image* input, tesk::Image* output,
                            tesk::ComputeProgram& current) {
    static const std::string bias_block = "bias_buffer";
    static const std::string weight_block = "weight_buffer";
    int height = 0, width = 0, channels = 0;
    output->size(height, width, channels);
    output->texture();
    current.setUnifromTexture("src", 0, *input);
    current.bindImage(1, GL_WRITE_ONLY, *output);
    const unsigned int x = static_cast<unsigned int>(groupsX);
    const unsigned int y = static_cast<unsigned int>(groupsY);
    const unsigned int z = static_cast<unsigned int>(groupsZ);
    if (blockCount == 0) {
        current.bindBuffer(2, *weightBuffers[0]);
        current.bindBuffer(3, biasBuffer);
        current.compute(x, y, z);
        return;
    }
    current.bindUniformBlockIdx(bias_block, biasBuffer, 3);
    const int slices_per_block = groupCount(sliceCount(channels), blockCount);
    for (int block = 0; block < blockCount; ++block) {
        current.bindUniformBlockIdx(weight_block, *weightBuffers[static_cast<size_t>(block)], 2);
        current.setUniform1i("dstOutZOffset", block * slices_per_block);
        current.compute(x, y, z);
    }
}

}  // namespace tesk
