// The box filter and the programs around it.
#include "support/gl_programs.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;

/// Sums over 2 * radius + 1 values along one axis, 0 outside, in double.
Tensor line_sums(const Tensor& src, int radius, bool along_x) {
    Tensor made(src.channels, src.height, src.width);
    for (int c = 0; c < src.channels; ++c) {
        for (int y = 0; y < src.height; ++y) {
            for (int x = 0; x < src.width; ++x) {
                double sum = 0.0;
                for (int i = -radius; i <= radius; ++i)
                    sum += value_or_zero(src, c, along_x ? y : y + i, along_x ? x + i : x);
                made.at(c, y, x) = sum;
            }
        }
    }
    return made;
}

/// The box mean in double.
Tensor box_mean(const Tensor& src, int radius) {
    Tensor made = line_sums(line_sums(src, radius, true), radius, false);
    for (double& value : made.values) value /= (2.0 * radius + 1) * (2.0 * radius + 1);
    return made;
}

/// What a box mean may be off by that keeps its row sums in textures: each row sum is rounded to
/// its format, and the mean of all losses is the loss of the mean. `highest` bounds the values.
double row_sum_error(int radius, double highest, GLenum format) {
    const double row = (2 * radius + 1) * highest;
    const double stored = format == GL_RGBA16F ? store_error(row) : std::ldexp(row, -23);
    return stored / (2 * radius + 1) + float_error(2 * (2 * radius + 1), highest);
}

class BoxPrograms : public ProgramTest {};

TEST_F(BoxPrograms, PlainAndFoldedSumsRunAlongTheirAxis) {
    struct Program {
        std::string name;
        bool along_x;
        bool mean;
    };
    unsigned int seed = 7000;
    for (const char* const bits : {"16", "32"}) {
        const GLenum format = std::string(bits) == "16" ? GL_RGBA16F : GL_RGBA32F;
        for (const Program& p : {Program{"h_sum_", true, false}, Program{"v_sum_", false, false}}) {
            for (const char* const ending : {"f_program", "f_optimization_program"}) {
                const bool folded = !p.along_x && std::string(ending) != "f_program";
                for (const int radius : {0, 1, 4, 40}) {
                    for (const Size size : sizes()) {
                        const std::string name = p.name + bits + ending;
                        SCOPED_TRACE(name + ", radius " + std::to_string(radius) + ", seed " +
                                     std::to_string(++seed));
                        const Tensor src = random_halves(4, size.height, size.width, seed);
                        tesk::ComputeProgram& program = use(name);
                        program.setUniform1i("filterSizeHalf", radius);
                        const Tensor result = loaded(program, {src}, size, format);
                        Tensor expected = line_sums(src, radius, p.along_x);
                        const double side = 2 * radius + 1;
                        for (double& value : expected.values) value /= folded ? side * side : 1.0;
                        const double error = float_error(
                            2 * radius + 3, std::min<double>(side, 33.0) / (folded ? side : 1.0));
                        if (format == GL_RGBA16F) {
                            expect_halves(expected, result, error);
                        } else {
                            for (size_t i = 0; i < expected.values.size(); ++i)
                                ASSERT_NEAR(expected.values[i], result.values[i], error);
                        }
                    }
                }
            }
        }
    }
}

TEST_F(BoxPrograms, FoldedColumnSumsAreDividedByAnImageToo) {
    unsigned int seed = 7200;
    for (const bool wide : {false, true}) {
        const GLenum format = wide ? GL_RGBA32F : GL_RGBA16F;
        for (const Size size : sizes()) {
            SCOPED_TRACE(++seed);
            const Tensor src = random_halves(4, size.height, size.width, seed);
            const Tensor div = random_halves(4, size.height, size.width, seed + 1000, 0.25, 1.0);
            tesk::ComputeProgram& program =
                use(wide ? "v_sum_32f_optimization_with_division_program"
                         : "v_sum_16f_optimization_with_division_program");
            program.setUniform1i("filterSizeHalf", 3);
            const Tensor result = loaded(program, {src, div}, size, format);
            Tensor expected = line_sums(src, 3, false);
            for (size_t i = 0; i < expected.values.size(); ++i)
                expected.values[i] = expected.values[i] / 49.0 / div.values[i];
            expect_halves(expected, result, float_error(10, 7.0 / 49.0 / 0.25));
        }
    }
}

TEST_F(BoxPrograms, AverageDividesByTheNumberOfValues) {
    unsigned int seed = 7300;
    for (const bool wide : {false, true}) {
        for (const int count : {1, 9, 49}) {
            SCOPED_TRACE(++seed);
            const Tensor src = random_halves(4, 5, 9, seed, -100.0, 100.0);
            tesk::ComputeProgram& program =
                use(wide ? "boxfilter_average_32f_program" : "boxfilter_average_16f_program");
            program.setUniform1i("filterSize", count);
            const Tensor result = loaded(program, {src}, {5, 9}, wide ? GL_RGBA32F : GL_RGBA16F);
            Tensor expected = src;
            for (double& value : expected.values) value /= count;
            expect_halves(expected, result, float_error(1, 100.0));
        }
    }
}

const std::vector<std::string> box_programs = {"h_sum_16f_optimization_program",
                                               "v_sum_16f_optimization_program",
                                               "v_sum_16f_optimization_with_division_program",
                                               "h_sum_32f_optimization_program",
                                               "v_sum_32f_optimization_program",
                                               "v_sum_32f_optimization_with_division_program"};

class BoxFilter : public ProgramTest {
protected:
    void SetUp() override {
        ProgramTest::SetUp();
        register_programs(box_programs);
    }
    Tensor filtered(const Tensor& src, int radius, GLenum format) {
        tesk::BoxFilter filter(radius, static_cast<int>(format), &pool, &manager);
        const auto from = upload(src, format);
        const auto to = make_output(4, src.height, src.width, format);
        filter.boxFilterEncode(from, to);
        return read_back(*to);
    }
};

const GLenum formats[] = {GL_RGBA16F, GL_RGBA32F};

TEST_F(BoxFilter, RadiusZeroCopies) {
    unsigned int seed = 7400;
    for (const GLenum format : formats) {
        for (const Size size : sizes()) {
            SCOPED_TRACE(++seed);
            const Tensor src = random_halves(4, size.height, size.width, seed);
            expect_same(src, filtered(src, 0, format));
        }
    }
}

TEST_F(BoxFilter, AConstantFallsOffOverABorderOfRadiusPixelsAndIsExactFurtherIn) {
    for (const GLenum format : formats) {
        for (const int radius : {1, 2, 5}) {
            SCOPED_TRACE(radius);
            // Sums of up to eleven of it are halves, so that nothing is lost on the way.
            const double constant = 0.625;
            const Tensor result = filtered(Tensor(4, 23, 19, constant), radius, format);
            for (int y = 0; y < 23; ++y) {
                for (int x = 0; x < 19; ++x) {
                    const bool border =
                        x < radius || y < radius || x >= 19 - radius || y >= 23 - radius;
                    if (border) {
                        ASSERT_LT(result.at(3, y, x), constant) << y << ", " << x;
                    } else {
                        ASSERT_EQ(result.at(3, y, x), constant) << y << ", " << x;
                    }
                }
            }
        }
    }
}

TEST_F(BoxFilter, AnImpulseBecomesASquareOfItsWindow) {
    for (const GLenum format : formats) {
        Tensor src(4, 17, 21);
        for (int c = 0; c < 4; ++c) src.at(c, 8, 9) = c + 1.0;
        const Tensor result = filtered(src, 3, format);
        Tensor expected(4, 17, 21);
        for (int c = 0; c < 4; ++c) {
            for (int y = 5; y <= 11; ++y) {
                for (int x = 6; x <= 12; ++x) expected.at(c, y, x) = (c + 1.0) / 49.0;
            }
        }
        expect_halves(expected, result, float_error(1, 0.1));
    }
}

TEST_F(BoxFilter, RandomPicturesMatchTheMeanInDouble) {
    unsigned int seed = 7500;
    for (const GLenum format : formats) {
        for (const int radius : {1, 4, 12}) {
            for (const Size size : {Size{5, 9}, Size{40, 33}, Size{16, 8}}) {
                SCOPED_TRACE(++seed);
                const Tensor src = random_halves(4, size.height, size.width, seed);
                expect_halves(box_mean(src, radius), filtered(src, radius, format),
                              row_sum_error(radius, 1.0, format));
            }
        }
    }
}

TEST_F(BoxFilter, ThirtyTwoBitMeansKeepTheirPrecision) {
    const Tensor src = random_halves(4, 21, 27, 7590);
    const Tensor expected = box_mean(src, 4), result = filtered(src, 4, GL_RGBA32F);
    for (size_t i = 0; i < expected.values.size(); ++i) {
        ASSERT_NEAR(expected.values[i], result.values[i],
                    row_sum_error(4, 1.0, GL_RGBA32F) + std::ldexp(1.0, -24));
    }
}

TEST_F(BoxFilter, DividingByTheMeanOfOnesMakesUpForTheFallOff) {
    unsigned int seed = 7600;
    for (const GLenum format : formats) {
        SCOPED_TRACE(++seed);
        const int radius = 3;
        const Tensor src = random_halves(4, 18, 13, seed, 0.0, 1.0);
        const Tensor ones = box_mean(Tensor(4, 18, 13, 1.0), radius);
        Tensor div = ones;
        for (double& value : div.values) value = nearest_half(value);
        tesk::BoxFilter filter(radius, static_cast<int>(format), &pool, &manager);
        const auto from = upload(src, format), by = upload(div, format);
        const auto to = make_output(4, 18, 13, format);
        filter.boxFilterWithElementWiseDivision(from, by, to);
        Tensor expected = box_mean(src, radius);
        for (size_t i = 0; i < expected.values.size(); ++i) expected.values[i] /= div.values[i];
        // The smallest divisor is the corner's, 16 of 49 pixels.
        expect_halves(expected, read_back(*to), row_sum_error(radius, 1.0, format) * 49.0 / 16.0);
        EXPECT_EQ(by->readCount(), 1);
    }
}

TEST_F(BoxFilter, ASourceThatNobodyWaitsForLosesItsTextureAndTheTemporaryGoesBack) {
    tesk::BoxFilter filter(2, GL_RGBA16F, &pool, &manager);
    const auto kept = upload(random_halves(4, 12, 12, 7700));
    const auto to = make_output(4, 12, 12);
    filter.boxFilterEncode(kept, to);
    EXPECT_EQ(kept->readCount(), 1);
    EXPECT_NE(kept->textureId(), 0u);
    EXPECT_EQ(pool.texturesInUse(), 2);
    const int textures = pool.textureCount();
    for (int frame = 0; frame < 5; ++frame) filter.boxFilterEncode(kept, to);
    EXPECT_EQ(pool.textureCount(), textures);

    kept->subReadCount();
    const auto given_up = make_image(4, 12, 12);
    given_up->texture();
    filter.boxFilterEncode(given_up, to);
    EXPECT_EQ(given_up->textureId(), 0u);
    EXPECT_EQ(given_up->readCount(), 0);
}

TEST_F(BoxFilter, OtherFormatsThanHalvesTakeTheProgramsOfThirtyTwoBits) {
    LogRecorder log;
    tesk::ComputeProgramManager halves_only(0, "halves");
    for (int i = 0; i < 3; ++i) {
        const std::string& name = box_programs[static_cast<size_t>(i)];
        halves_only.addComputeProgramFromString(tesk::programSource(name), name);
    }
    log.lines.clear();
    EXPECT_TRUE(tesk::BoxFilter(1, GL_RGBA16F, &pool, &halves_only).isReady());
    EXPECT_TRUE(log.lines.empty());
    EXPECT_FALSE(tesk::BoxFilter(1, GL_RGBA32F, &pool, &halves_only).isReady());
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0].text,
              "BoxFilter: expected the program h_sum_32f_optimization_program to be registered, "
              "found none");
}

TEST_F(BoxFilter, WithoutProgramsOrImagesItIsAnErrorLineAndNothingIsDispatched) {
    tesk::ComputeProgramManager empty(0, "empty");
    const auto from = upload(random_halves(4, 6, 6, 7800));
    const auto to = make_output(4, 6, 6);
    LogRecorder log;
    tesk::BoxFilter without(1, GL_RGBA16F, &pool, &empty);
    log.lines.clear();
    without.boxFilterEncode(from, to);
    without.boxFilterWithElementWiseDivision(from, from, to);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[0].text, "BoxFilter: its programs were not registered when it was made");
    EXPECT_EQ(empty.programCount(), 0) << "asking leaves no empty entry behind";

    tesk::BoxFilter filter(1, GL_RGBA16F, &pool, &manager);
    filter.boxFilterEncode(nullptr, to);
    filter.boxFilterEncode(from, make_image(4, 6, 6, GL_RGBA32F));
    filter.boxFilterWithElementWiseDivision(from, nullptr, to);
    ASSERT_EQ(log.lines.size(), 5u);
    EXPECT_EQ(log.lines[2].text, "BoxFilter: src: expected an image, found none");
    EXPECT_EQ(log.lines[3].text, "BoxFilter: dst: expected the GL format 0x881a, found 0x8814");
    EXPECT_EQ(log.lines[4].text, "BoxFilter: div: expected an image, found none");
    EXPECT_EQ(from->readCount(), 1);
    EXPECT_TRUE(std::isnan(read_back(*to).at(0, 0, 0)));
}

TEST_F(BoxFilter, WithoutAPoolItIsAnErrorLine) {
    const auto image = make_output(4, 8, 8);
    LogRecorder log;
    tesk::BoxFilter(1, GL_RGBA16F, nullptr, &manager).boxFilterEncode(image, image);
    ASSERT_EQ(log.lines.size(), 1u);
    for (const LogRecorder::Line& line : log.lines)
        EXPECT_NE(line.text.find("expected a texture pool, found none"), std::string::npos);
    EXPECT_TRUE(std::isnan(read_back(*image).at(0, 0, 0)));
}

}  // namespace
