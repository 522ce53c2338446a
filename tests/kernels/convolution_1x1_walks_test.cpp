// The 1x1 convolutions on planes where the shape does not divide by their steps: the walk goes on
// in memory order, and only the ends of the blocks stop it.

#include "support/blocked_convolutions.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

LayerParams params_of(int inputs, int outputs) {
    LayerParams params;
    params.num_output = outputs;
    params.kernel = 1;
    params.weight_count = inputs * outputs;
    params.num_input = inputs;
    return params;
}

// Tiles of `tile` output channels and 4x4 pixels of four input channels, on memory with zeros
// behind it.
std::vector<ExactSum> walk_tiles(int inputs, int outputs, int h, int w, int tile,
                                 std::vector<float> in, std::vector<float> weights,
                                 std::vector<float> bias) {
    const size_t plane = static_cast<size_t>(h) * w;
    const size_t total = outputs * plane;
    const size_t room = 20 * plane + 8 * w + 64;
    in.resize(in.size() + room, 0.0f);
    weights.resize(weights.size() + 20 * inputs + 64, 0.0f);
    bias.resize(bias.size() + 20, 0.0f);
    std::vector<ExactSum> out(total + room);
    for (int first = 0; first < outputs; first += tile) {
        for (int p = first; p < first + tile; ++p) {
            for (size_t i = 0; i < plane; ++i) {
                out[p * plane + i] = ExactSum();
                out[p * plane + i].add(bias[p]);
            }
        }
        for (int q = 0; q < inputs; q += 4) {
            for (int y = 0; y < h; y += 4) {
                for (int x = 0; x < w; x += 4) {
                    for (int p = first; p < first + tile; ++p) {
                        for (int row = y; row < y + 4; ++row) {
                            for (int column = x; column < x + 4; ++column) {
                                const size_t place = static_cast<size_t>(row) * w + column;
                                for (int k = q; k < q + 4; ++k) {
                                    out[p * plane + place].add(double{in[k * plane + place]} *
                                                               weights[p * inputs + k]);
                                }
                            }
                        }
                    }
                }
            }
        }
    }
    out.resize(total);
    return out;
}

TEST(Convolution1x1Walks, TilesThatStickOutGoOnInTheNextRowAndTheNextChannel) {
    struct Member {
        const char* name;
        int tile;
    };
    for (const Member& member :
         {Member{"Convolution_1x1s1_Float_SSE_M1", 1}, Member{"Convolution_1x1s1_Float_SSE_M2", 4},
          Member{"Convolution_1x1s1_Float_SSE_M3", 8},
          Member{"Convolution_1x1s1_Float_SSE_M4", 16}}) {
        for (const auto& size : std::vector<std::vector<int>>{{1, 1, 1, 1},
                                                              {3, 5, 4, 4},
                                                              {4, 4, 3, 4},
                                                              {4, 4, 4, 3},
                                                              {5, 17, 5, 7},
                                                              {8, 9, 6, 2},
                                                              {16, 20, 8, 9},
                                                              {7, 16, 1, 13}}) {
            const int inputs = size[0], outputs = size[1], h = size[2], w = size[3];
            const unsigned int seed = 60;
            SCOPED_TRACE(testing::Message() << member.name << ", " << inputs << " to " << outputs
                                            << " of " << h << "x" << w << ", seed " << seed);
            const auto bottom = random_floats(static_cast<size_t>(inputs) * h * w, seed);
            const auto weights = random_floats(static_cast<size_t>(inputs) * outputs, seed + 1);
            const auto bias = random_floats(outputs, seed + 2);
            auto op = make_loaded(member.name, params_of(inputs, outputs), weights, bias);
            ExactBlock block(bottom);
            ExactBlock top_block(
                std::vector<float>(static_cast<size_t>(outputs) * h * w, std::nanf("")));
            Mat top = top_block.view(chw(outputs, h, w));
            ASSERT_EQ(0, op->forward(block.view(chw(inputs, h, w)), top, get_default_option()));
            ASSERT_NO_FATAL_FAILURE(
                expect_sums(walk_tiles(inputs, outputs, h, w, member.tile, bottom, weights, bias),
                            values_of(top)));
        }
    }
}

TEST(Convolution1x1Walks, DotProductsLeaveOutChannelsBehindTheLastWholeBlock) {
    const int inputs = 6, outputs = 3, h = 2, w = 4;
    const auto bottom = random_floats(inputs * h * w, 70);
    const auto weights = random_floats(4 * outputs, 71);
    const auto bias = random_floats(outputs, 72);
    std::vector<ExactSum> expected;
    for (int p = 0; p < outputs; ++p) {
        for (int i = 0; i < h * w; ++i) {
            ExactSum sum;
            sum.add(bias[p]);
            for (int q = 0; q < 4; ++q) sum.add(double{bottom[q * h * w + i]} * weights[p * 4 + q]);
            expected.push_back(sum);
        }
    }
    for (const char* name : {"Convolution_1x1s1_Float_SSE_M5", "Convolution_1x1s1_Float_SSE_M6"}) {
        auto op = make_loaded(name, params_of(4, outputs), weights, bias);
        ExactBlock block(bottom);
        Mat top;
        ASSERT_EQ(0, op->forward(block.view(chw(inputs, h, w)), top, get_default_option()));
        expect_sums(expected, values_of(top));
        // Fewer channels than a block are none.
        ExactBlock small(random_floats(3 * h * w, 73));
        EXPECT_EQ(-100, op->forward(small.view(chw(3, h, w)), top, get_default_option()));
    }
}

TEST(Convolution1x1Walks, EightChannelsAVectorCutsTheLastBlockOffWhereTheScratchEnds) {
    const char* const name = "Convolution_1x1s1_Float_C8HW8_AVX2_M1";
    if (!machine_has(find_operator(name)->isa)) GTEST_SKIP() << "needs AVX2 and FMA";
    const int h = 3, w = 5, plane = h * w, outputs = 3;
    for (int inputs : {1, 4, 7, 9, 12, 15, 20}) {
        SCOPED_TRACE(testing::Message() << inputs << " channels, seed 74");
        const auto bottom = random_floats(inputs * plane, 74);
        auto weights = random_floats(inputs * outputs, 75);
        const auto bias = random_floats(outputs, 76);
        auto op = make_loaded(name, params_of(inputs, outputs), weights, bias);
        // The form as memory: what does not fit into bottom's size is lost.
        const int blocks = (inputs - 1) / 8 + 1;
        std::vector<float> form(static_cast<size_t>(8) * blocks * plane, 0.0f);
        for (int b = 0; b < blocks; ++b) {
            for (int i = 0; i < plane; ++i) {
                for (int lane = 0; lane < 8; ++lane) {
                    const size_t source = static_cast<size_t>(8 * b + lane) * plane + i;
                    const size_t place = (static_cast<size_t>(b) * plane + i) * 8 + lane;
                    if (place < bottom.size() && source < bottom.size())
                        form[place] = bottom[source];
                }
            }
        }
        weights.resize(weights.size() + 16, 0.0f);
        std::vector<ExactSum> expected;
        for (int p = 0; p < outputs; ++p) {
            for (int i = 0; i < plane; ++i) {
                ExactSum sum;
                for (int b = 0; b < blocks; ++b) {
                    for (int lane = 0; lane < 8; ++lane) {
                        sum.add(double{form[(b * plane + i) * 8 + lane]} *
                                weights[p * inputs + 8 * b + lane]);
                    }
                }
                sum.add(bias[p]);
                expected.push_back(sum);
            }
        }
        ExactBlock block(bottom);
        ExactBlock top_block(std::vector<float>(static_cast<size_t>(outputs) * plane));
        Mat top = top_block.view(chw(outputs, h, w));
        ASSERT_EQ(0, op->forward(block.view(chw(inputs, h, w)), top, get_default_option()));
        expect_sums(expected, values_of(top));
    }
}

}  // namespace
