// Pixel shuffle and upsampling on the GPU, each generator by itself.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pixelshuffle.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling_nearest.h"
#include "support/generators.h"
#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;
using tesk::Tricks_PixelShuffle_DownSampling;
using tesk::Tricks_PixelShuffle_UpSampling;
using tesk::Tricks_UpSampling;
using tesk::Tricks_UpSampling_Nearest;

struct ResamplingTexts : ::testing::Test {
    tesk::ComputeProgramManager manager{0, "test"};

    static tesk::TricksParams params_of(int channels) {
        tesk::TricksParams params;
        params.localSizeX = params.localSizeY = 8;
        params.localSizeZ = 1;
        params.inChannels = params.outChannels = channels;
        return params;
    }
};

// Pixel shuffle.

class PixelShuffle : public GpuTest {
protected:
    /// The full-resolution tensor with a pixel's four neighbours as four channels.
    static Tensor to_depth(const Tensor& full) {
        Tensor deep(4 * full.channels, full.height / 2, full.width / 2);
        for (int c = 0; c < deep.channels; ++c) {
            for (int y = 0; y < deep.height; ++y) {
                for (int x = 0; x < deep.width; ++x)
                    deep.at(c, y, x) = full.at(c / 4, 2 * y + c % 4 / 2, 2 * x + c % 2);
            }
        }
        return deep;
    }

    template <typename Generator>
    void run(const Tensor& input, const Tensor& want, double factor) {
        SCOPED_TRACE(std::to_string(input.channels) + " channels of " +
                     std::to_string(input.width) + "x" + std::to_string(input.height) + " to " +
                     std::to_string(want.channels));
        ZQLayerInfo_PixelShuffle record;
        set_shapes(record, {input.channels, input.height, input.width},
                   {want.channels, want.height, want.width});
        record.upscale_factor = half_pattern(factor);
        Generator generator(&manager);
        generator.setup(&record);
        const auto source = upload(input);
        const auto target = make_output(want.channels, want.height, want.width);
        generator.compute(source.get(), target.get());
        expect_equals(read_back(*target), want);
    }
};

TEST_F(PixelShuffle, DownAndUpAreInversesForAllChannelCounts) {
    for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
        const Tensor full = random_halves(channels, 18, 22, static_cast<unsigned int>(channels));
        const Tensor deep = to_depth(full);
        run<Tricks_PixelShuffle_DownSampling>(full, deep, 0.5);
        run<Tricks_PixelShuffle_UpSampling>(deep, full, 2.0);
    }
    EXPECT_EQ(manager.programCount(), 6);
}

TEST_F(PixelShuffle, OnePixelOfDepth) {
    for (const int channels : {1, 4, 5}) {
        const Tensor full = random_halves(channels, 2, 2, 3);
        run<Tricks_PixelShuffle_DownSampling>(full, to_depth(full), 0.5);
        run<Tricks_PixelShuffle_UpSampling>(to_depth(full), full, 2.0);
    }
}

TEST_F(PixelShuffle, ProgramsOfTheCatalogueAreSharedWhereTheManagerHasThem) {
    manager.initProgramBinary({}, &manager);
    const int programs = manager.programCount();
    const Tensor full = random_halves(5, 18, 22, 1);
    run<Tricks_PixelShuffle_DownSampling>(full, to_depth(full), 0.5);
    EXPECT_EQ(manager.programCount(), programs);
    EXPECT_EQ(manager.setupCosts.programsShared, 1);
}

TEST_F(PixelShuffle, TheChannelsChooseTheProgram) {
    const auto expect_program = [&](tesk::Tricks& generator, int in, int out, const char* name) {
        manager.release();
        ZQLayerInfo_PixelShuffle record;
        set_shapes(record, {in, 4, 4}, {out, 4, 4});
        generator.setup(&record);
        EXPECT_TRUE(manager.IsExistComputeProgram(name)) << name;
        EXPECT_EQ(manager.programCount(), 1);
    };
    Tricks_PixelShuffle_DownSampling down(&manager);
    expect_program(down, 1, 4, "pixelShuffle_downSample_1_in_4_out_program");
    expect_program(down, 2, 8, "pixelShuffle_downSample_4_in_16_out_program");
    expect_program(down, 4, 16, "pixelShuffle_downSample_4_in_16_out_program");
    expect_program(down, 5, 20, "pixelShuffle_downSample_muti_in_muti_out_program");
    Tricks_PixelShuffle_UpSampling up(&manager);
    expect_program(up, 4, 1, "pixelShuffle_upSample_4_in_1_out_program");
    expect_program(up, 8, 2, "pixelShuffle_upSample_16_in_4_out_program");
    expect_program(up, 16, 4, "pixelShuffle_upSample_16_in_4_out_program");
    expect_program(up, 20, 5, "pixelShuffle_upSample_muti_in_muti_out_program");
}

TEST_F(PixelShuffle, ARecordOfAnotherKindIsRefusedAndThePrintNamesTheLayer) {
    ZQLayerInfo_Pooling record;
    record.id = 1;
    LogRecorder log;
    Tricks_PixelShuffle_DownSampling down(&manager);
    Tricks_PixelShuffle_UpSampling up(&manager);
    down.setup(&record);
    up.setup(&record);
    down.print();
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0].text,
              "layer 1 (Pooling): expected a record of PixelShuffle, found Pooling");
    EXPECT_EQ(log.lines[1].text, log.lines[0].text);
    EXPECT_EQ(log.lines[2].text, "PixelShuffle layer");
}

// Bilinear.

class Bilinear : public GpuTest {
protected:
    struct Point {
        int first;
        int second;
        double weight;  ///< of the second
    };
    static Point point(int out, int in_size, int out_size, bool align) {
        double position = 0.0;
        if (out_size > 1) {
            position = align ? out * (in_size - 1.0) / (out_size - 1.0)
                             : std::max(0.0, (out + 0.5) * in_size / out_size - 0.5);
        }
        const int first = static_cast<int>(std::floor(position));
        return {first, std::min(first + 1, in_size - 1), position - first};
    }

    void expect_right(const LayerShape& in, const LayerShape& out, int align) {
        SCOPED_TRACE("channels " + std::to_string(in.channels) + ", " + std::to_string(in.width) +
                     "x" + std::to_string(in.height) + " to " + std::to_string(out.width) + "x" +
                     std::to_string(out.height) + ", align " + std::to_string(align));
        ZQLayerInfo_Upsampling record;
        set_shapes(record, in, out);
        record.scale = half_pattern(2.0);
        record.mode = 1;
        record.align = static_cast<unsigned short>(align);
        Tricks_UpSampling generator(&manager);
        generator.setup(&record);
        const Tensor input = random_halves(in.channels, in.height, in.width, 23);
        Reference want(out.channels, out.height, out.width);
        for (int c = 0; c < in.channels; ++c) {
            for (int y = 0; y < out.height; ++y) {
                for (int x = 0; x < out.width; ++x) {
                    const Point row = point(y, in.height, out.height, align != 0);
                    const Point column = point(x, in.width, out.width, align != 0);
                    const auto along = [&](int r) {
                        return (1 - column.weight) * input.at(c, r, column.first) +
                               column.weight * input.at(c, r, column.second);
                    };
                    want.values.at(c, y, x) =
                        (1 - row.weight) * along(row.first) + row.weight * along(row.second);
                    // A position is a rounded factor times an index, less 0.5: three roundings of
                    // at most in_size. Values in -1 .. 1 change by at most 2 a pixel. The sum of
                    // four products of three factors has nine roundings of at most 1 each.
                    want.errors.at(c, y, x) =
                        std::ldexp(3.0 * 2.0 * (in.width + in.height) + 9.0, -24);
                }
            }
        }
        const auto source = upload(input);
        const auto target = make_output(out.channels, out.height, out.width);
        generator.compute(source.get(), target.get());
        expect_matches(read_back(*target), want);
    }
};

TEST_F(Bilinear, AllChannelCountsWithAndWithoutAlignedCorners) {
    for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
        for (const int align : {0, 1}) expect_right({channels, 7, 9}, {channels, 14, 18}, align);
    }
}

TEST_F(Bilinear, AnyRatioUpAndDown) {
    for (const int align : {0, 1, 2}) {
        expect_right({3, 5, 6}, {3, 17, 23}, align);
        expect_right({6, 13, 11}, {6, 5, 4}, align);
        expect_right({3, 1, 1}, {3, 9, 8}, align);
        expect_right({3, 8, 8}, {3, 8, 8}, align);
        expect_right({3, 8, 8}, {3, 1, 1}, align);
    }
}

TEST_F(Bilinear, AnOutputOneColumnWideReadsColumnZero) {
    for (const int align : {0, 1}) {
        ZQLayerInfo_Upsampling record;
        set_shapes(record, {1, 1, 8}, {1, 1, 1});
        record.align = static_cast<unsigned short>(align);
        Tricks_UpSampling generator(&manager);
        generator.setup(&record);
        const Tensor input = random_halves(1, 1, 8, 5);
        const auto source = upload(input);
        const auto target = make_output(1, 1, 1);
        generator.compute(source.get(), target.get());
        EXPECT_EQ(read_back(*target).at(0, 0, 0), input.at(0, 0, 0));
    }
}

TEST_F(Bilinear, ARecordOfAnotherKindIsRefused) {
    ZQLayerInfo_Pooling record;
    record.id = 1;
    LogRecorder log;
    Tricks_UpSampling bilinear(&manager);
    Tricks_UpSampling_Nearest nearest(&manager);
    bilinear.setup(&record);
    nearest.setup(&record);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[0].text,
              "layer 1 (Pooling): expected a record of Upsampling, found Pooling");
    EXPECT_EQ(log.lines[1].text, log.lines[0].text);
}

TEST_F(ResamplingTexts, BilinearNameAndPieces) {
    Tricks_UpSampling bilinear(&manager);
    tesk::TricksParams params = params_of(4);
    EXPECT_EQ(bilinear.programName(params, "UpSampling", 1, 8, 8, 1),
              "UpSampling_alignCorner_1_4_In_4_Out_localsize_8x8x1_program");
    std::string source = bilinear.generateSource(params, 1);
    for (const char* const piece :
         {"layout(rgba16f, binding = 0) readonly uniform lowp image2D src;",
          "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;",
          "uniform float _width_scale_factor;", "uniform float _height_scale_factor;",
          "linear_upsampling_compute_source_index(float scale, int dst_index, int align_corners)",
          "linear_upsampling_compute_source_index(_height_scale_factor, h2, 1)",
          "linear_upsampling_compute_source_index(_width_scale_factor, w2, 1)",
          "vec4 val = h0lambda * (w0lambda * srcValue_0 + w1lambda * srcValue_1) + h1lambda * "
          "(w0lambda * srcValue_2 + w1lambda * srcValue_3);",
          "imageStore(dst, ivec2(w2, h2), val);"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    params = params_of(5);
    EXPECT_EQ(bilinear.programName(params, "UpSampling", 0, 8, 8, 1),
              "UpSampling_alignCorner_0_muti_In_muti_Out_localsize_8x8x1_program");
    source = bilinear.generateSource(params, 0);
    EXPECT_TRUE(contains(source, "readonly uniform lowp image2DArray src;"));
    EXPECT_TRUE(contains(source, "writeonly uniform lowp image2DArray dst;"));
    EXPECT_TRUE(contains(source, "_height_scale_factor, h2, 0)"));
}

// Nearest.

class Nearest : public GpuTest {
protected:
    /// `factor_x` and `factor_y` are what the generator does with the shapes and the scale.
    void expect_right(const LayerShape& in, double scale, int factor_x, int factor_y) {
        SCOPED_TRACE("channels " + std::to_string(in.channels) + ", scale " +
                     std::to_string(scale));
        ZQLayerInfo_Upsampling record;
        set_shapes(record, in, {in.channels, in.height * factor_y, in.width * factor_x});
        record.scale = half_pattern(scale);
        Tricks_UpSampling_Nearest generator(&manager);
        generator.setup(&record);
        const Tensor input = random_halves(in.channels, in.height, in.width, 29);
        Tensor want(in.channels, in.height * factor_y, in.width * factor_x);
        for (int c = 0; c < want.channels; ++c) {
            for (int y = 0; y < want.height; ++y) {
                for (int x = 0; x < want.width; ++x)
                    want.at(c, y, x) = input.at(c, y / factor_y, x / factor_x);
            }
        }
        const auto source = upload(input);
        const auto target = make_output(want.channels, want.height, want.width);
        generator.compute(source.get(), target.get());
        expect_equals(read_back(*target), want);
    }
};

TEST_F(Nearest, ScalesOfTwoAndFourForAllChannelCounts) {
    for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
        expect_right({channels, 5, 9}, 2.0, 2, 2);
        expect_right({channels, 5, 9}, 4.0, 4, 4);
    }
    EXPECT_FALSE(manager.IsExistComputeProgram("upsampling_sigo_denoise_program"));
}

TEST_F(Nearest, AnyOtherScaleActsAsTwo) {
    expect_right({3, 7, 8}, 3.0, 2, 2);
    expect_right({6, 1, 1}, 8.0, 2, 2);
    expect_right({6, 3, 5}, 0.0, 2, 2);
}

TEST_F(Nearest, FourTimesAsWideAndAsHighAsBeforeTakesTheProgramOfTheCatalogue) {
    for (const int channels : {1, 4, 5, 16}) expect_right({channels, 9, 11}, 4.0, 4, 1);
    EXPECT_TRUE(manager.IsExistComputeProgram("upsampling_sigo_denoise_program"));
    EXPECT_EQ(manager.programCount(), 1);
}

TEST_F(ResamplingTexts, NearestNameAndPieces) {
    Tricks_UpSampling_Nearest nearest(&manager);
    tesk::TricksParams params = params_of(4);
    EXPECT_EQ(nearest.programName(params, "UpSampling_Nearest", 4.0f, 8, 8, 1),
              "UpSampling_Nearest_4_In_4_Out_upscale_factor_4_localsize_8x8x1_program");
    std::string source = nearest.generateSource(params, 4.0f);
    EXPECT_TRUE(contains(source, "vec4 srcData = imageLoad(src, pos);"));
    EXPECT_TRUE(contains(source, "readonly uniform lowp image2D src;"));
    EXPECT_EQ(occurrences(source, "imageStore("), 16u);
    params = params_of(5);
    EXPECT_EQ(nearest.programName(params, "UpSampling_Nearest", 3.75f, 8, 8, 1),
              "UpSampling_Nearest_muti_In_muti_Out_upscale_factor_3_localsize_8x8x1_program");
    source = nearest.generateSource(params, 3.75f);
    EXPECT_TRUE(contains(source, "readonly uniform lowp image2DArray src;"));
    EXPECT_EQ(occurrences(source, "imageStore("), 4u);
    EXPECT_TRUE(contains(nearest.programName(params, "", HUGE_VALF, 8, 8, 1), "factor_0_"));
    EXPECT_TRUE(contains(nearest.programName(params, "", NAN, 8, 8, 1), "factor_0_"));
}

}  // namespace
