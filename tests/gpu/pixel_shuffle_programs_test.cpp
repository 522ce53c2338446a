// Space to depth and depth to space by two.

#include "support/tensor_programs.h"

namespace {

using namespace testing_support;

constexpr unsigned int seed = 40213;

// Sizes of the half-sized side.
const MapSize map_sizes[] = {{1, 1}, {8, 8}, {13, 11}, {3, 22}};

class PixelShuffleProgramTest : public TensorProgramTest {
protected:
    PixelShuffleProgramTest() : TensorProgramTest(seed) {}

    /// Down: work over dst, one invocation along z for each slice of src. Up: work over src, one
    /// for each slice of dst.
    Tensor run(const std::string& name, const Tensor& in, int channels, int height, int width,
               bool down) {
        const auto src = upload(in, GL_RGBA16F, 9.0f);  // padding that must not show
        const auto dst = make_output(channels, height, width);
        const auto program = use_program(name);
        program->setUnifromTexture("src", 0, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        const int flat_slices = ((down ? in.channels : channels) + 3) / 4;
        dispatch(*program, down ? width : in.width, down ? height : in.height, flat_slices);
        return read_back(*dst);
    }
};

std::string down_program(int channels) {
    if (channels == 1) return "pixelShuffle_downSample_1_in_4_out_program";
    if (channels <= 4) return "pixelShuffle_downSample_4_in_16_out_program";
    return "pixelShuffle_downSample_muti_in_muti_out_program";
}

std::string up_program(int channels) {
    if (channels == 1) return "pixelShuffle_upSample_4_in_1_out_program";
    if (channels <= 4) return "pixelShuffle_upSample_16_in_4_out_program";
    return "pixelShuffle_upSample_muti_in_muti_out_program";
}

TEST_F(PixelShuffleProgramTest, DownSamplingGivesEachChannelASliceOfItsBlocks) {
    for (const int channels : {1, 2, 3, 4, 5, 8, 11}) {
        for (const MapSize size : map_sizes) {
            SCOPED_TRACE("channels " + std::to_string(channels) + ", " +
                         std::to_string(size.height) + " x " + std::to_string(size.width));
            const Tensor in = random_halves(channels, 2 * size.height, 2 * size.width, seed);
            Tensor want(4 * channels, size.height, size.width);
            for (int c = 0; c < channels; ++c) {
                for (int y = 0; y < in.height; ++y) {
                    for (int x = 0; x < in.width; ++x)
                        want.at((2 * c + y % 2) * 2 + x % 2, y / 2, x / 2) = in.at(c, y, x);
                }
            }
            expect_same_texture(
                run(down_program(channels), in, 4 * channels, size.height, size.width, true), want);
        }
    }
}

TEST_F(PixelShuffleProgramTest, DownSamplingCountsPixelsBesideAnOddPictureAsZero) {
    for (const int channels : {1, 3, 6}) {
        SCOPED_TRACE("channels " + std::to_string(channels));
        const Tensor in = random_halves(channels, 5, 7, seed);
        Tensor want(4 * channels, 3, 4);
        for (int c = 0; c < channels; ++c) {
            for (int y = 0; y < 5; ++y) {
                for (int x = 0; x < 7; ++x)
                    want.at((2 * c + y % 2) * 2 + x % 2, y / 2, x / 2) = in.at(c, y, x);
            }
        }
        expect_same_texture(run(down_program(channels), in, 4 * channels, 3, 4, true), want);
    }
}

TEST_F(PixelShuffleProgramTest, UpSamplingSpreadsEachSliceOverItsChannel) {
    for (const int channels : {1, 2, 3, 4, 5, 8, 11}) {
        for (const MapSize size : map_sizes) {
            SCOPED_TRACE("channels " + std::to_string(channels) + ", " +
                         std::to_string(size.height) + " x " + std::to_string(size.width));
            const Tensor in = random_halves(4 * channels, size.height, size.width, seed);
            // Components of the last slice beyond the channels are 0.
            Tensor want((channels + 3) / 4 * 4, 2 * size.height, 2 * size.width);
            for (int c = 0; c < channels; ++c) {
                for (int y = 0; y < want.height; ++y) {
                    for (int x = 0; x < want.width; ++x)
                        want.at(c, y, x) = in.at((2 * c + y % 2) * 2 + x % 2, y / 2, x / 2);
                }
            }
            expect_same_texture(
                run(up_program(channels), in, channels, want.height, want.width, false), want);
        }
    }
}

TEST_F(PixelShuffleProgramTest, UpSamplingWritesNothingFromBesideTheSource) {
    for (const int channels : {1, 4, 6}) {
        SCOPED_TRACE("channels " + std::to_string(channels));
        const Tensor in = random_halves(4 * channels, 3, 5, seed);
        const Tensor got = run(up_program(channels), in, channels, 16, 16, false);
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 16; ++x)
                EXPECT_EQ(std::isnan(got.at(0, y, x)), y >= 6 || x >= 10) << y << ", " << x;
        }
    }
}

TEST_F(PixelShuffleProgramTest, UpSamplingUndoesDownSampling) {
    for (const int channels : {1, 4, 12}) {
        SCOPED_TRACE("channels " + std::to_string(channels));
        const Tensor in = random_halves(channels, 18, 10, seed);
        const Tensor deep = run(down_program(channels), in, 4 * channels, 9, 5, true);
        const Tensor flat = run(up_program(channels), deep, channels, 18, 10, false);
        for (size_t i = 0; i < in.values.size(); ++i) ASSERT_EQ(flat.values[i], in.values[i]) << i;
    }
}

}  // namespace
