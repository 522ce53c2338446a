#include "weight_packer.h"

#include <cstring>

namespace tesk {
namespace {

size_t to_size(int number) {
    return static_cast<size_t>(number);
}

int whole_slices(int channels) {
    return (channels + 3) / 4 * 4;
}

/// w[o][y][x][i] as o, i, y, x, with the channels filled up with zeros.
template <typename Number>
std::vector<Number> planar(const Number* w, int ic, int oc, int kw, int kh) {
    const int ic4 = whole_slices(ic);
    const int taps = kw * kh;
    std::vector<Number> result(to_size(whole_slices(oc)) * to_size(ic4) * to_size(taps), Number(0));
    for (int o = 0; o < oc; ++o) {
        for (int tap = 0; tap < taps; ++tap) {
            for (int i = 0; i < ic; ++i) {
                result[(to_size(o) * to_size(ic4) + to_size(i)) * to_size(taps) + to_size(tap)] =
                    w[(to_size(o) * to_size(taps) + to_size(tap)) * to_size(ic) + to_size(i)];
            }
        }
    }
    return result;
}

/// The 16 numbers of one tap between an input and an output slice, from o, i, y, x with `ic4` input
/// channels: four outputs for input 0, four for input 1, and so on.
template <typename Number>
Number* put_block(Number* out, const std::vector<Number>& source, int ic4, int taps, int out_slice,
                  int in_slice, int tap) {
    for (int i = 4 * in_slice; i < 4 * in_slice + 4; ++i) {
        for (int o = 4 * out_slice; o < 4 * out_slice + 4; ++o) {
            *out++ = source[(to_size(o) * to_size(ic4) + to_size(i)) * to_size(taps) + to_size(tap)];
        }
    }
    return out;
}

template <typename Number>
std::vector<unsigned char> bytes_of(const std::vector<Number>& numbers) {
    std::vector<unsigned char> bytes(numbers.size() * sizeof(Number));
    if (!bytes.empty()) std::memcpy(bytes.data(), numbers.data(), bytes.size());
    return bytes;
}

std::vector<unsigned char> blocked(const std::vector<unsigned short>& source, int ic4, int oc4,
                                   int taps) {
    std::vector<unsigned short> result(source.size());
    unsigned short* out = result.data();
    for (int out_slice = 0; out_slice < oc4 / 4; ++out_slice) {
        for (int in_slice = 0; in_slice < ic4 / 4; ++in_slice) {
            for (int tap = 0; tap < taps; ++tap)
                out = put_block(out, source, ic4, taps, out_slice, in_slice, tap);
        }
    }
    return bytes_of(result);
}

template <typename Number>
std::vector<unsigned char> depthwise(const Number* w, int channels, int taps) {
    std::vector<Number> result(to_size(whole_slices(channels)) * to_size(taps), Number(0));
    for (int c = 0; c < channels; ++c) {
        for (int tap = 0; tap < taps; ++tap) {
            result[to_size((c / 4 * taps + tap) * 4 + c % 4)] = w[to_size(tap * channels + c)];
        }
    }
    return bytes_of(result);
}

}  // namespace

WeightPacker::WeightPacker(int inputChannels, int outputChannels, int kernelWidth,
                           int kernelHeight, int groups,
                           const tesk::ComputeProgramManager* manager)
    : groups(groups),
      kernelWidth(kernelWidth),
      kernelHeight(kernelHeight),
      inputChannels(inputChannels),
      outputChannels(outputChannels),
      manager(manager) {}

void WeightPacker::packHalf(const unsigned short* w) {
    packed = blocked(planar(w, inputChannels, outputChannels, kernelWidth, kernelHeight),
                     whole_slices(inputChannels), whole_slices(outputChannels),
                     kernelWidth * kernelHeight);
}

void WeightPacker::packFloatConstantIndex(const float* w, int* blockBytes, int* slicesPerBlock) {
    const int taps = kernelWidth * kernelHeight;
    const int ic4 = whole_slices(inputChannels);
    const int oc4 = whole_slices(outputChannels);
    const int slices = oc4 % 16 == 0 ? 4 : oc4 % 12 == 0 ? 3 : oc4 % 8 == 0 ? 2 : 1;
    const int block_floats = slices * taps * 16;
    const int alignment = manager->uniformBufferOffsetAlignment > 0
                              ? manager->uniformBufferOffsetAlignment
                              : static_cast<int>(sizeof(float));
    const int stride =
        (block_floats * static_cast<int>(sizeof(float)) + alignment - 1) / alignment * alignment;
    const int blocks = oc4 / 4 / slices;

    const std::vector<float> source =
        planar(w, inputChannels, outputChannels, kernelWidth, kernelHeight);
    packed.assign(to_size(stride) * to_size(blocks) * to_size(ic4 / 4), 0);
    std::vector<float> block(to_size(block_floats));
    unsigned char* at = packed.data();
    for (int in_slice = 0; in_slice < ic4 / 4; ++in_slice) {
        for (int k = 0; k < blocks; ++k) {
            float* out = block.data();
            for (int slice = 0; slice < slices; ++slice) {
                for (int tap = 0; tap < taps; ++tap)
                    out = put_block(out, source, ic4, taps, k * slices + slice, in_slice, tap);
            }
            std::memcpy(at, block.data(), block.size() * sizeof(float));
            at += stride;
        }
    }
    *blockBytes = stride;
    *slicesPerBlock = slices;
}

void WeightPacker::packHalfTransposedSource(const void* w) {
    const int ic4 = whole_slices(inputChannels);
    const int oc4 = whole_slices(outputChannels);
    std::vector<unsigned short> source(to_size(ic4) * to_size(oc4), 0);
    std::memcpy(source.data(), w,
                to_size(inputChannels) * to_size(outputChannels) * sizeof(unsigned short));
    packed = blocked(source, ic4, oc4, 1);
}

void WeightPacker::packDepthwiseFloat(const float* w) {
    packed = depthwise(w, outputChannels, kernelWidth * kernelHeight);
}

void WeightPacker::packDepthwiseHalf(const unsigned short* w) {
    packed = depthwise(w, outputChannels, kernelWidth * kernelHeight);
}

void WeightPacker::packGroupHalf(const unsigned short* w) {
    const int taps = kernelWidth * kernelHeight;
    const int per_group_in = inputChannels / groups;
    const int out_channels = outputChannels / groups * groups;
    std::vector<unsigned short> result(to_size(taps) * to_size(out_channels) * to_size(per_group_in),
                                       0);
    size_t at = 0;
    for (int out_slice = 0; out_slice < out_channels / 4; ++out_slice) {
        for (int tap = 0; tap < taps; ++tap) {
            for (int i = 0; i < per_group_in; ++i) {
                for (int o = 4 * out_slice; o < 4 * out_slice + 4; ++o) {
                    result[at++] = w[(to_size(o) * to_size(taps) + to_size(tap)) *
                                         to_size(per_group_in) +
                                     to_size(i)];
                }
            }
        }
    }
    packed = bytes_of(result);
}

void BiasPacker::packHalf(const void* b) {
    const int slices = whole_slices(outputChannels) / 4;
    packed.assign(to_size(slices) * 16, 0);
    if (b == nullptr) return;
    for (int o = 0; o < outputChannels; ++o) {
        std::memcpy(&packed[to_size(o / 4 * 16 + o % 4 * 2)],
                    static_cast<const unsigned char*>(b) + 2 * to_size(o), 2);
    }
}

void BiasPacker::packHalfPlain(const void* b) {
    packed.assign(to_size(whole_slices(outputChannels)) * 2, 0);
    if (b != nullptr && outputChannels > 0) {
        std::memcpy(packed.data(), b, to_size(outputChannels) * 2);
    }
}

void BiasPacker::packFloat(const void* b) {
    packed.assign(to_size(whole_slices(outputChannels)) * 4, 0);
    if (b != nullptr && outputChannels > 0) {
        std::memcpy(packed.data(), b, to_size(outputChannels) * 4);
    }
}

}  // namespace tesk
