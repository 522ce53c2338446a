#include "support/gl_programs.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;

const double taps[5] = {1, 4, 6, 4, 1};

Tensor halved_width(const Tensor& src, int width) {
    Tensor made(src.channels, src.height, width);
    for (int c = 0; c < src.channels; ++c) {
        for (int y = 0; y < src.height; ++y) {
            for (int x = 0; x < width; ++x) {
                double sum = 0.0;
                for (int i = 0; i < 5; ++i)
                    sum += taps[i] * value_clamped(src, c, y, 2 * x - 2 + i);
                made.at(c, y, x) = sum / 16.0;
            }
        }
    }
    return made;
}

Tensor halved_height(const Tensor& src, int height) {
    Tensor made(src.channels, height, src.width);
    for (int c = 0; c < src.channels; ++c) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < src.width; ++x) {
                double sum = 0.0;
                for (int i = 0; i < 5; ++i)
                    sum += taps[i] * value_clamped(src, c, 2 * y - 2 + i, x);
                made.at(c, y, x) = sum / 16.0;
            }
        }
    }
    return made;
}

// What storing the first pass loses is averaged by the second one, which adds its own.
const double first_pass_error = store_error(1.0) + float_error(10, 1.0);

class Pyramid : public ProgramTest {
protected:
    void SetUp() override {
        ProgramTest::SetUp();
        register_programs(
            {"transform_rgb2y_program", "gaussianPyramid_h_program", "gaussianPyramid_v_program"});
    }
    Tensor reduced(const Tensor& src, Size dst) {
        tesk::Pyramid pyramid(4, 4, 1, &pool, &manager);
        const auto from = upload(src);
        const auto to = make_output(4, dst.height, dst.width);
        pyramid.GaussianPyramid_sampler(from, to);
        EXPECT_EQ(from->readCount(), 1);
        return read_back(*to);
    }
};

TEST_F(Pyramid, EachProgramHalvesItsAxis) {
    unsigned int seed = 9000;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed);
        const int w = (size.width + 1) / 2, h = (size.height + 1) / 2;
        expect_halves(halved_width(src, w),
                      loaded(use("gaussianPyramid_h_program"), {src}, {size.height, w}),
                      float_error(10, 1.0));
        expect_halves(halved_height(src, h),
                      loaded(use("gaussianPyramid_v_program"), {src}, {h, size.width}),
                      float_error(10, 1.0));
    }
}

TEST_F(Pyramid, AConstantPictureStaysConstantThroughAReductionAtTheEdgesToo) {
    for (const double constant : {0.0, 0.3, 1.0, 50.5}) {
        const double value = nearest_half(constant);
        // The weights add up to 16, and a half times 16 is exact in floats.
        const Tensor result = reduced(Tensor(4, 15, 22, value), {8, 11});
        for (const double found : result.values) ASSERT_EQ(found, value);
    }
}

TEST_F(Pyramid, AnImpulseOnAnEvenPixelBecomesTheEvenTaps) {
    Tensor src(4, 16, 16);
    for (int c = 0; c < 4; ++c) src.at(c, 8, 6) = 1.0;
    const Tensor result = reduced(src, {8, 8});
    Tensor expected(4, 8, 8);
    for (int c = 0; c < 4; ++c) {
        for (int y = -1; y <= 1; ++y) {
            for (int x = -1; x <= 1; ++x)
                expected.at(c, 4 + y, 3 + x) = taps[2 + 2 * y] * taps[2 + 2 * x] / 256.0;
        }
    }
    expect_same(expected, result);
}

TEST_F(Pyramid, RandomPicturesMatchTheReductionInDoubleAtAnyDestinationSize) {
    unsigned int seed = 9100;
    for (const Size src_size : {Size{19, 33}, Size{16, 24}, Size{1, 1}, Size{5, 40}}) {
        for (const Size dst :
             {Size{(src_size.height + 1) / 2, (src_size.width + 1) / 2}, Size{13, 7}, Size{1, 1}}) {
            SCOPED_TRACE(++seed);
            const Tensor src = random_halves(4, src_size.height, src_size.width, seed);
            expect_halves(halved_height(halved_width(src, dst.width), dst.height),
                          reduced(src, dst), first_pass_error);
        }
    }
}

TEST_F(Pyramid, ADestinationOfOnePixelRepeatsColumnZero) {
    Tensor src(4, 1, 8);
    for (int x = 0; x < 8; ++x) src.at(0, 0, x) = std::ldexp(1.0, -x);
    // Columns 0, 0, 0, 1, 2 under 1, 4, 6, 4, 1; the one row stands for all five.
    EXPECT_EQ(reduced(src, {1, 1}).at(0, 0, 0), (1 + 4 + 6 + 4 * 0.5 + 0.25) / 16.0);
}

TEST_F(Pyramid, TheBaseIsTheLuminanceOfTheFrame) {
    unsigned int seed = 9200;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed, 0.0, 1.0);
        tesk::Pyramid pyramid(size.width, size.height, 3, &pool, &manager);
        const auto from = upload(src);
        pyramid.buildPyramid(from);
        EXPECT_EQ(from->readCount(), 1);
        ASSERT_EQ(pyramid.base()->width(), size.width);
        ASSERT_EQ(pyramid.base()->height(), size.height);
        EXPECT_EQ(pyramid.base()->channels(), 3);
        EXPECT_EQ(pyramid.base()->format(), GLenum{GL_RGBA16F});
        expect_halves(picture_of(size.height, size.width,
                                 [&](int y, int x) {
                                     const double luminance = 0.299 * src.at(0, y, x) +
                                                              0.587 * src.at(1, y, x) +
                                                              0.114 * src.at(2, y, x);
                                     return std::vector<double>{luminance, 0, 0, 0};
                                 }),
                      read_back(*pyramid.base()), float_error(5, 1.0));
    }
}

TEST_F(Pyramid, WhiteHasALuminanceOfOne) {
    tesk::Pyramid pyramid(12, 10, 1, &pool, &manager);
    pyramid.buildPyramid(upload(Tensor(4, 10, 12, 1.0)));
    const Tensor base = read_back(*pyramid.base());
    for (int y = 0; y < 10; ++y) {
        for (int x = 0; x < 12; ++x) ASSERT_NEAR(base.at(0, y, x), 1.0, std::ldexp(1.0, -11));
    }
}

TEST_F(Pyramid, WhatAFrameLacksOfTheBaseCountsAsZero) {
    const Tensor src = random_halves(4, 5, 6, 9250, 0.25, 1.0);
    tesk::Pyramid pyramid(11, 9, 1, &pool, &manager);
    pyramid.buildPyramid(upload(src));
    const Tensor base = read_back(*pyramid.base());
    for (int y = 0; y < 9; ++y) {
        for (int x = 0; x < 11; ++x)
            ASSERT_EQ(base.at(0, y, x) > 0.0, y < 5 && x < 6) << y << ", " << x;
    }
}

TEST_F(Pyramid, TheBaseKeepsItsTextureAndTheTemporaryGoesBack) {
    {
        tesk::Pyramid pyramid(12, 10, 1, &pool, &manager);
        EXPECT_EQ(pyramid.base()->readCount(), 1);
        pyramid.buildPyramid(upload(Tensor(4, 10, 12, 0.5)));
        const unsigned int texture = pyramid.base()->textureId();
        ASSERT_NE(texture, 0u);
        const auto level = make_output(4, 5, 6);
        pyramid.GaussianPyramid_sampler(pyramid.base(), level);
        EXPECT_EQ(pyramid.base()->textureId(), texture);
        EXPECT_EQ(pyramid.base()->readCount(), 1);
        EXPECT_EQ(pool.texturesInUse(), 2) << "base and level";
    }
    EXPECT_EQ(pool.texturesInUse(), 0);
}

TEST_F(Pyramid, WithoutProgramsOrImagesItIsAnErrorLineAndNothingIsDispatched) {
    tesk::ComputeProgramManager empty(0, "empty");
    tesk::Pyramid without(8, 8, 1, &pool, &empty);
    tesk::Pyramid pyramid(8, 8, 1, &pool, &manager);
    const auto image = make_output(4, 8, 8);
    LogRecorder log;
    without.buildPyramid(image);
    without.GaussianPyramid_sampler(image, image);
    pyramid.buildPyramid(nullptr);
    pyramid.GaussianPyramid_sampler(image, nullptr);
    pyramid.GaussianPyramid_sampler(make_image(4, 8, 8, GL_RGBA8), image);
    tesk::Pyramid(0, 8, 1, &pool, &manager).buildPyramid(image);
    const std::vector<std::string> expected = {
        "buildPyramid: expected the program transform_rgb2y_program to be registered, found none",
        "GaussianPyramid_sampler: expected the program gaussianPyramid_h_program to be registered, "
        "found none",
        "GaussianPyramid_sampler: expected the program gaussianPyramid_v_program to be registered, "
        "found none",
        "buildPyramid: src: expected an image, found none",
        "GaussianPyramid_sampler: dst: expected an image, found none",
        "GaussianPyramid_sampler: src: expected the GL format 0x881a, found 0x8058",
        "buildPyramid: base: expected a picture of 1 to 4 channels, found width 0, height 8, "
        "channels 3"};
    ASSERT_EQ(log.lines.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(log.lines[i].text, expected[i]);
    EXPECT_TRUE(std::isnan(read_back(*image).at(0, 0, 0)));
}

TEST_F(Pyramid, MergePacksTheFirstComponentsOfFourLevels) {
    unsigned int seed = 9300;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        std::vector<Tensor> levels;
        std::vector<std::shared_ptr<tesk::Image>> images;
        tesk::ComputeProgram& program = use("merge_pyramid_program");
        for (int i = 0; i < 4; ++i) {
            levels.push_back(random_halves(4, size.height, size.width, seed + 100u * unsigned(i)));
            images.push_back(upload(levels.back()));
        }
        const auto to = make_output(4, size.height, size.width);
        for (int i = 0; i < 4; ++i) {
            program.setUnifromTexture("pyramid" + std::to_string(i), i,
                                      *images[static_cast<size_t>(i)]);
        }
        program.bindImage(4, GL_WRITE_ONLY, *to);
        const Tensor result = dispatched(program, *to);
        expect_same(picture_of(size.height, size.width,
                               [&](int y, int x) {
                                   return std::vector<double>{
                                       levels[0].at(0, y, x), levels[1].at(0, y, x),
                                       levels[2].at(0, y, x), levels[3].at(0, y, x)};
                               }),
                    result);
    }
}

TEST_F(Pyramid, MergePreTakesTheFirstComponentAndClearsTheOthers) {
    unsigned int seed = 9400;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed);
        const auto from = upload(src);
        const auto to = make_output(4, size.height, size.width);
        tesk::ComputeProgram& program = use("merge_prePyramid_program");
        program.setUnifromTexture("prePyramid", 0, *from);
        program.bindImage(1, GL_WRITE_ONLY, *to);
        expect_same(picture_of(size.height, size.width,
                               [&](int y, int x) {
                                   return std::vector<double>{src.at(0, y, x), 0, 0, 0};
                               }),
                    dispatched(program, *to));
    }
}

TEST_F(Pyramid, WithoutAPoolItIsAnErrorLine) {
    const auto image = make_output(4, 8, 8);
    LogRecorder log;
    tesk::Pyramid pyramid(8, 8, 1, nullptr, &manager);
    pyramid.buildPyramid(image);
    pyramid.GaussianPyramid_sampler(image, image);
    ASSERT_EQ(log.lines.size(), 2u);
    for (const LogRecorder::Line& line : log.lines)
        EXPECT_NE(line.text.find("expected a texture pool, found none"), std::string::npos);
    EXPECT_TRUE(std::isnan(read_back(*image).at(0, 0, 0)));
}

}  // namespace
