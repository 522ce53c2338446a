// Packed weights byte for byte: for each place of the layout the formula says which number of the
// model stands there, or that it is padding.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/tricks/weight_packer.h"
#include "support/gl_fixture.h"

namespace {

using tesk::BiasPacker;
using tesk::WeightPacker;

struct Layer {
    int in;
    int out;
    int w;
    int h;

    int taps() const { return w * h; }
    int in_slices() const { return (in + 3) / 4; }
    int out_slices() const { return (out + 3) / 4; }
    size_t weights() const { return static_cast<size_t>(in * out * taps()); }
};

std::string name_of(const Layer& layer) {
    return std::to_string(layer.in) + " to " + std::to_string(layer.out) + " channels, kernel " +
           std::to_string(layer.w) + " x " + std::to_string(layer.h);
}

/// Numbers that tell their place: 1 for the first, and none is 0.
template <typename Number>
std::vector<Number> places(size_t count) {
    std::vector<Number> numbers;
    for (size_t i = 0; i < count; ++i) numbers.push_back(static_cast<Number>(i + 1));
    return numbers;
}

/// What lies packed, as numbers.
template <typename Number, typename Packer>
std::vector<Number> packed_numbers(const Packer& packer) {
    EXPECT_EQ(static_cast<size_t>(packer.size()) % sizeof(Number), 0u);
    std::vector<Number> numbers(static_cast<size_t>(packer.size()) / sizeof(Number));
    if (!numbers.empty())
        std::memcpy(numbers.data(), packer.data(), numbers.size() * sizeof(Number));
    return numbers;
}

/// Place of w[o][y][x][i] in the model's order, from 1; 0 for a channel that is padding.
size_t model_place(const Layer& layer, int o, int tap, int i) {
    if (o >= layer.out || i >= layer.in) return 0;
    return static_cast<size_t>((o * layer.taps() + tap) * layer.in + i) + 1;
}

const Layer layers[] = {{1, 1, 1, 1},  {3, 5, 3, 3},  {4, 4, 1, 3},  {5, 3, 3, 1}, {8, 8, 2, 2},
                        {9, 16, 5, 5}, {16, 9, 7, 1}, {7, 12, 1, 7}, {4, 1, 4, 4}};

const tesk::ComputeProgramManager& no_context_manager() {
    static const tesk::ComputeProgramManager manager(0, "weights");
    return manager;
}

TEST(WeightPacking, HalvesOfAConvolutionAreBlocksOfFourInputsByFourOutputs) {
    for (const Layer& layer : layers) {
        SCOPED_TRACE(name_of(layer));
        const std::vector<unsigned short> weights = places<unsigned short>(layer.weights());
        WeightPacker packer(layer.in, layer.out, layer.w, layer.h, 1, &no_context_manager());
        packer.packHalf(weights.data());
        const auto packed = packed_numbers<unsigned short>(packer);
        ASSERT_EQ(packed.size(),
                  static_cast<size_t>(layer.in_slices() * layer.out_slices() * layer.taps() * 16));
        for (size_t at = 0; at < packed.size(); ++at) {
            const int within = static_cast<int>(at % 16);
            const int block = static_cast<int>(at / 16);
            const int tap = block % layer.taps();
            const int in_slice = block / layer.taps() % layer.in_slices();
            const int out_slice = block / layer.taps() / layer.in_slices();
            const int o = 4 * out_slice + within % 4;
            const int i = 4 * in_slice + within / 4;
            ASSERT_EQ(packed[at], model_place(layer, o, tap, i)) << "at " << at;
        }
    }
}

TEST(WeightPacking, ThreeToFiveChannelsOf3x3TakeThePaddedSize) {
    const Layer layer = {3, 5, 3, 3};
    const std::vector<unsigned short> weights(layer.weights(), 1);
    WeightPacker packer(layer.in, layer.out, 3, 3, 1, &no_context_manager());
    packer.packHalf(weights.data());
    EXPECT_EQ(packer.size(), 8 * 4 * 9 * 2);
    int zeros = 0;
    for (const unsigned short number : packed_numbers<unsigned short>(packer)) zeros += number == 0;
    EXPECT_EQ(zeros, 8 * 4 * 9 - 5 * 3 * 9);
}

TEST(WeightPacking, ConstantIndexBlocksHoldOneInputSliceAtAnAlignedStride) {
    for (const int alignment : {4, 16, 256}) {
        tesk::ComputeProgramManager manager(0, "weights");
        manager.uniformBufferOffsetAlignment = alignment;
        for (const Layer& layer : layers) {
            SCOPED_TRACE(name_of(layer) + ", alignment " + std::to_string(alignment));
            const std::vector<float> weights = places<float>(layer.weights());
            WeightPacker packer(layer.in, layer.out, layer.w, layer.h, 1, &manager);
            int block_bytes = 0, slices = 0;
            packer.packFloatConstantIndex(weights.data(), &block_bytes, &slices);

            const int out4 = 4 * layer.out_slices();
            const int expected_slices = out4 % 16 == 0   ? 4
                                        : out4 % 12 == 0 ? 3
                                        : out4 % 8 == 0  ? 2
                                                         : 1;
            EXPECT_EQ(slices, expected_slices);
            const int bytes = slices * layer.taps() * 64;
            EXPECT_EQ(block_bytes, (bytes + alignment - 1) / alignment * alignment);

            const int groups = layer.out_slices() / slices;
            const auto packed = packed_numbers<float>(packer);
            const size_t stride = static_cast<size_t>(block_bytes) / sizeof(float);
            // The padding behind the last block need not be there.
            ASSERT_GE(packed.size(), static_cast<size_t>(layer.in_slices() * groups - 1) * stride +
                                         static_cast<size_t>(bytes) / sizeof(float));
            for (int block = 0; block < layer.in_slices() * groups; ++block) {
                for (int k = 0; k < slices * layer.taps() * 16; ++k) {
                    const int tap = k / 16 % layer.taps();
                    const int out_slice = block % groups * slices + k / 16 / layer.taps();
                    const int o = 4 * out_slice + k % 4;
                    const int i = 4 * (block / groups) + k / 4 % 4;
                    ASSERT_EQ(packed[static_cast<size_t>(block) * stride + static_cast<size_t>(k)],
                              static_cast<float>(model_place(layer, o, tap, i)))
                        << "block " << block << ", number " << k;
                }
            }
        }
    }
}

TEST(WeightPacking, FullConnectionTakesTheSourceAsItStands) {
    for (const Layer& layer : {Layer{8, 5, 1, 1}, Layer{12, 4, 1, 1}, Layer{6, 1, 1, 1}}) {
        SCOPED_TRACE(name_of(layer));
        const std::vector<unsigned short> weights = places<unsigned short>(layer.weights());
        WeightPacker packer(layer.in, layer.out, 1, 1, 1, &no_context_manager());
        packer.packHalfTransposedSource(weights.data());
        const auto packed = packed_numbers<unsigned short>(packer);
        ASSERT_EQ(packed.size(), static_cast<size_t>(layer.in_slices() * layer.out_slices() * 16));
        for (size_t at = 0; at < packed.size(); ++at) {
            const int block = static_cast<int>(at / 16), within = static_cast<int>(at % 16);
            const int o = block / layer.in_slices() * 4 + within % 4;
            const int i = block % layer.in_slices() * 4 + within / 4;
            ASSERT_EQ(packed[at], model_place(layer, o, 0, i)) << "at " << at;
        }
    }
}

TEST(WeightPacking, FullConnectionOfRowsThatAreNoWholeSlicesRunsTheRowsTogether) {
    // Two outputs of five inputs in front of zeros up to eight: the stride of the source is eight.
    const std::vector<unsigned short> weights = places<unsigned short>(10);
    WeightPacker packer(5, 2, 1, 1, 1, &no_context_manager());
    packer.packHalfTransposedSource(weights.data());
    const auto packed = packed_numbers<unsigned short>(packer);
    ASSERT_EQ(packed.size(), 32u);
    for (size_t at = 0; at < packed.size(); ++at) {
        const size_t o = at % 4, i = at / 16 * 4 + at % 16 / 4;
        const size_t place = o * 8 + i;
        ASSERT_EQ(packed[at], place < 10 ? place + 1 : 0) << "at " << at;
    }
}

TEST(WeightPacking, DepthwiseWeightsAreFourChannelsForEachTap) {
    for (const int channels : {1, 3, 4, 5, 8, 9, 16}) {
        for (const int kernel : {3, 5}) {
            SCOPED_TRACE(std::to_string(channels) + " channels, kernel " + std::to_string(kernel));
            const int taps = kernel * kernel;
            WeightPacker packer(channels, channels, kernel, kernel, 1, &no_context_manager());
            const auto expect = [&](const auto& packed) {
                ASSERT_EQ(packed.size(), static_cast<size_t>((channels + 3) / 4 * 4 * taps));
                for (size_t at = 0; at < packed.size(); ++at) {
                    const int channel =
                        static_cast<int>(at) / 4 / taps * 4 + static_cast<int>(at) % 4;
                    const int tap = static_cast<int>(at) / 4 % taps;
                    const int place = channel < channels ? tap * channels + channel + 1 : 0;
                    ASSERT_EQ(static_cast<int>(packed[at]), place) << "at " << at;
                }
            };
            const size_t count = static_cast<size_t>(channels * taps);
            packer.packDepthwiseFloat(places<float>(count).data());
            expect(packed_numbers<float>(packer));
            packer.packDepthwiseHalf(places<unsigned short>(count).data());
            expect(packed_numbers<unsigned short>(packer));
        }
    }
}

TEST(WeightPacking, GroupsAreBlocksOfTheirOwnFourInputs) {
    for (const int groups : {2, 3, 5}) {
        const int channels = 4 * groups;
        SCOPED_TRACE(std::to_string(groups) + " groups");
        const std::vector<unsigned short> weights =
            places<unsigned short>(static_cast<size_t>(channels * 9 * 4));
        WeightPacker packer(channels, channels, 3, 3, groups, &no_context_manager());
        packer.packGroupHalf(weights.data());
        EXPECT_EQ(packer.size(), 9 * groups * 4 * 4 * 2);
        const auto packed = packed_numbers<unsigned short>(packer);
        for (size_t at = 0; at < packed.size(); ++at) {
            const size_t slice = at / 16 / 9, tap = at / 16 % 9;
            const size_t o = 4 * slice + at % 4, i = at % 16 / 4;
            ASSERT_EQ(packed[at], (o * 9 + tap) * 4 + i + 1) << "at " << at;
        }
    }
}

TEST(BiasPacking, HalvesTakeOneUvec4ASliceWithTwoWordsOfZero) {
    const std::vector<unsigned short> biases = places<unsigned short>(5);
    BiasPacker packer(5);
    packer.packHalf(biases.data());
    EXPECT_EQ(packer.size(), 8 * 4);
    const auto words = packed_numbers<unsigned int>(packer);
    const std::vector<unsigned int> expected = {1u | 2u << 16, 3u | 4u << 16, 0, 0, 5, 0, 0, 0};
    EXPECT_EQ(words, expected);
}

TEST(BiasPacking, PlainHalvesAndFloatsArePaddedToWholeSlices) {
    for (const int channels : {1, 4, 5, 9}) {
        const size_t count = static_cast<size_t>(channels);
        BiasPacker packer(channels);
        packer.packHalfPlain(places<unsigned short>(count).data());
        const auto halves = packed_numbers<unsigned short>(packer);
        packer.packFloat(places<float>(count).data());
        const auto floats = packed_numbers<float>(packer);
        ASSERT_EQ(halves.size(), (count + 3) / 4 * 4);
        ASSERT_EQ(floats.size(), halves.size());
        for (size_t i = 0; i < halves.size(); ++i) {
            EXPECT_EQ(halves[i], i < count ? i + 1 : 0);
            EXPECT_EQ(floats[i], i < count ? static_cast<float>(i + 1) : 0.0f);
        }
    }
}

TEST(BiasPacking, NoSourceGivesZeros) {
    BiasPacker packer(6);
    packer.packFloat(nullptr);
    EXPECT_EQ(packed_numbers<float>(packer), std::vector<float>(8, 0.0f));
}

}  // namespace
