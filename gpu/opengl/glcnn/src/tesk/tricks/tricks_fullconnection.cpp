#include "tricks_fullconnection.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "../glutil/gl.h"
#include "record_checks.h"
#include "source_pieces.h"
#include "weight_packer.h"

namespace tesk {
namespace {

// Bytes of the uniform blocks of fullConnected_operator_program.
constexpr int weight_block_bytes = 4096 * 16;
constexpr int bias_block_bytes = 256 * 16;

/// A uniform block reads a buffer of its own length at the least.
void create_buffer(tesk::Buffer& buffer, const void* data, int size, bool uniform,
                   int block_bytes) {
    if (!uniform) {
        buffer.create(size, data, GL_SHADER_STORAGE_BUFFER);
        return;
    }
    std::vector<unsigned char> block(static_cast<size_t>(std::max(size, block_bytes)), 0);
    std::memcpy(block.data(), data, static_cast<size_t>(size));
    buffer.create(static_cast<int>(block.size()), block.data(), GL_UNIFORM_BUFFER);
}

}  // namespace

void Tricks_FullConnection::setup(ZQLayerInfo* info) {
    const auto* const record =
        recordAs<ZQLayerInfo_FullConnection>(info, ZQLayerType_FullConnection);
    if (record == nullptr) return;
    const int inputs = record->num_input;
    const int outputs = record->num_output;
    if (inputs <= 4) {
        // One slice is a plain texture, which the programs' array sampler would not see.
        reportLayer(*record, "more than 4 inputs", inputs);
        return;
    }
    if (outputs == 0) {
        reportLayer(*record, "at least 1 output", outputs);
        return;
    }
    if (!holdsAtLeast(*record, "weights", 1LL * inputs * outputs, record->weights_half,
                      record->weights_count)) {
        return;
    }
    if (record->has_bias != 0 &&
        !holdsAtLeast(*record, "biases", outputs, record->bias_half, record->bias_count)) {
        return;
    }
    const bool uniform = manager->uboSliceLimit > 0;
    const long long weight_bytes = 32LL * sliceCount(inputs) * sliceCount(outputs);
    if (uniform && weight_bytes > weight_block_bytes) {
        reportLayer(*record, "weights of at most 65536 bytes in a uniform block", weight_bytes);
        return;
    }
    if (uniform && sliceCount(outputs) > bias_block_bytes / 16) {
        reportLayer(*record, "at most 1024 outputs with uniform blocks", outputs);
        return;
    }
    inputChannels = record->num_input;
    outputChannels = record->num_output;

    addTime(manager->setupCosts.packing, [&] {
        WeightPacker packed_weights(inputs, outputs, 1, 1, 1, manager);
        packed_weights.packHalfTransposedSource(record->weights_half);
        create_buffer(weights, packed_weights.data(), packed_weights.size(), uniform,
                      weight_block_bytes);
        BiasPacker packed_bias(outputs);
        packed_bias.packHalf(record->has_bias != 0 ? record->bias_half : nullptr);
        create_buffer(bias, packed_bias.data(), packed_bias.size(), uniform, bias_block_bytes);
    });
    const char* const name = uniform ? "fullConnected_operator_program"
                             : ((outputs + 3) & ~3) <= 4
                                 ? "fullConnected_operator_ssbo_muti_in_4_out_program"
                                 : "fullConnected_operator_ssbo_program";
    groups = {1, 1, sliceCount(outputs)};
    program = shareProgram(name, [&] { return catalogueSource(name); });
}

void Tricks_FullConnection::compute(tesk::Image* input, tesk::Image* output) {
    if (!useProgram(program)) return;
    program->setUnifromTexture("src", 0, *input);
    program->bindImage(1, GL_WRITE_ONLY, *output);
    program->bindBuffer(2, weights);
    program->bindBuffer(3, bias);
    program->setUniform1i("inDepth", sliceCount(inputChannels));
    program->compute(groups.x, groups.y, groups.z);
}

std::string Tricks_FullConnection::programName(TricksParams& params, const char* prefix, int, int,
                                               int) {
    return formatSource(
        params.uboWeightCount > 0 ? "%s_ubo_a%d_bias%d_program" : "%s_ssbo_a%d_bias%d_program",
        prefix, params.activation, params.hasBias);
}

}  // namespace tesk
