// Weights and biases of the model in the layouts that the shaders read.
//
// ic and oc are input and output channels, a slice is four channels, and counts of channels are
// rounded up to whole slices with zeros. Sizes are bytes.
#pragma once

#include <cstddef>
#include <vector>

#include "../compute_program_manager.h"
#include "../types.h"

namespace tesk {

/// One layer's weights, packed by one of its operations, each of which replaces what was packed
/// before. The data go with the object: buffers copy them.
class TESK_TESTED WeightPacker {
public:
    WeightPacker(int inputChannels, int outputChannels, int kernelWidth, int kernelHeight,
                 int groups, const tesk::ComputeProgramManager* manager);
    WeightPacker(const WeightPacker&) = delete;
    WeightPacker& operator=(const WeightPacker&) = delete;

    /// From w[o][y][x][i], oc * kh * kw * ic halves. For each output slice, input slice, row and
    /// column 16 halves: input channel 0 of the four output channels, input channel 1, and so on.
    /// Two `uvec4` of the shader, the columns of a mat4.
    void packHalf(const unsigned short* w);
    /// From the same order in floats, for programs that index weights with constants: for each
    /// input slice and each group of output slices one block, in it for each output slice, row and
    /// column 16 floats in the order of `packHalf`. Blocks follow each other at a stride that
    /// `glBindBufferRange` can address. `*blockBytes` is that stride, `*slicesPerBlock` the output
    /// slices of a block, 1 to 4.
    void packFloatConstantIndex(const float* w, int* blockBytes, int* slicesPerBlock);
    /// From w[o][i] for a 1 x 1 kernel, oc * ic halves, copied as they stand in front of zeros up to
    /// whole slices, then blocked as in `packHalf`: right only where ic is a whole number of slices
    /// or there is one output.
    void packHalfTransposedSource(const void* w);
    /// From w[y][x][c], kh * kw * oc numbers: for each slice, row and column four channels.
    void packDepthwiseFloat(const float* w);
    void packDepthwiseHalf(const unsigned short* w);
    /// From w[o][y][x][i] with the four inputs of the output's group: for each output slice, row and
    /// column 16 halves in the order of `packHalf`.
    void packGroupHalf(const unsigned short* w);

    const void* data() const { return packed.data(); }
    int size() const { return static_cast<int>(packed.size()); }

private:
    std::vector<unsigned char> packed;
    int groups;
    int kernelWidth;
    int kernelHeight;
    int inputChannels;
    int outputChannels;
    const tesk::ComputeProgramManager* manager;
};

/// One layer's biases. A null source packs zeros.
class TESK_TESTED BiasPacker {
public:
    explicit BiasPacker(int outputChannels) : outputChannels(outputChannels) {}
    BiasPacker(const BiasPacker&) = delete;
    BiasPacker& operator=(const BiasPacker&) = delete;

    /// oc halves: for each slice one `uvec4`, two halves in x, two in y, 0 in z and w.
    void packHalf(const void* b);
    /// oc halves: four for each slice.
    void packHalfPlain(const void* b);
    /// oc floats: four for each slice.
    void packFloat(const void* b);

    const void* data() const { return packed.data(); }
    int size() const { return static_cast<int>(packed.size()); }

private:
    std::vector<unsigned char> packed;
    int outputChannels;
};

}  // namespace tesk
