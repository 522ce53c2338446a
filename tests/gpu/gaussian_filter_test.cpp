#include "support/gl_programs.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;

const double kernel[5] = {0.05448868, 0.24420134, 0.40261995, 0.24420134, 0.05448868};

Tensor blurred_along(const Tensor& src, bool along_x) {
    Tensor made(src.channels, src.height, src.width);
    for (int c = 0; c < src.channels; ++c) {
        for (int y = 0; y < src.height; ++y) {
            for (int x = 0; x < src.width; ++x) {
                double sum = 0.0;
                for (int i = 0; i < 5; ++i) {
                    sum += kernel[i] *
                           value_clamped(src, c, along_x ? y : y - 2 + i, along_x ? x - 2 + i : x);
                }
                made.at(c, y, x) = sum;
            }
        }
    }
    return made;
}

// What storing the first pass loses is averaged by the second one, which adds its own.
double first_pass_error(double highest) {
    return store_error(highest) + float_error(10, highest);
}

class GaussianFilter : public ProgramTest {
protected:
    void SetUp() override {
        ProgramTest::SetUp();
        register_programs({"h_gaussian_sum_16f_program", "v_gaussian_sum_16f_program"});
    }
    Tensor filtered(const Tensor& src) {
        tesk::GaussianFilter filter(GL_RGBA16F, &pool, &manager);
        const auto from = upload(src);
        const auto to = make_output(4, src.height, src.width);
        filter.gaussianFliterEncode(from, to);
        return read_back(*to);
    }
};

TEST_F(GaussianFilter, EachProgramBlursAlongItsAxis) {
    unsigned int seed = 8000;
    for (const Size size : sizes()) {
        for (const bool along_x : {true, false}) {
            SCOPED_TRACE(++seed);
            const Tensor src = random_halves(4, size.height, size.width, seed);
            const Tensor result =
                loaded(use(along_x ? "h_gaussian_sum_16f_program" : "v_gaussian_sum_16f_program"),
                       {src}, size);
            expect_halves(blurred_along(src, along_x), result, float_error(10, 1.0));
        }
    }
}

TEST_F(GaussianFilter, AConstantPictureStaysThatConstantAtTheEdgesToo) {
    for (const double constant : {0.0, 0.3, 1.0, 7.25}) {
        const double value = nearest_half(constant);
        const Tensor result = filtered(Tensor(4, 11, 21, value));
        // The taps add up to 0.99999999: the nearest half is the constant itself.
        for (const double found : result.values) ASSERT_EQ(found, value);
    }
}

TEST_F(GaussianFilter, AnImpulseBecomesTheProductOfTheTaps) {
    Tensor src(4, 13, 19);
    for (int c = 0; c < 4; ++c) src.at(c, 6, 10) = 1.0;
    const Tensor result = filtered(src);
    Tensor expected(4, 13, 19);
    for (int c = 0; c < 4; ++c) {
        for (int y = -2; y <= 2; ++y) {
            for (int x = -2; x <= 2; ++x)
                expected.at(c, 6 + y, 10 + x) = kernel[y + 2] * kernel[x + 2];
        }
    }
    // What storing a tap of the first pass loses is scaled by a tap in the second.
    expect_halves(expected, result, store_error(0.41) * 0.41 + float_error(10, 0.41));
}

TEST_F(GaussianFilter, RandomPicturesMatchTheBlurInDouble) {
    unsigned int seed = 8100;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed);
        expect_halves(blurred_along(blurred_along(src, true), false), filtered(src),
                      first_pass_error(1.0));
    }
}

TEST_F(GaussianFilter, ASourceThatNobodyWaitsForLosesItsTextureAndTheTemporaryGoesBack) {
    tesk::GaussianFilter filter(GL_RGBA16F, &pool, &manager);
    const auto kept = upload(random_halves(4, 12, 12, 8200));
    const auto to = make_output(4, 12, 12);
    filter.gaussianFliterEncode(kept, to);
    EXPECT_EQ(kept->readCount(), 1);
    EXPECT_NE(kept->textureId(), 0u);
    EXPECT_EQ(pool.texturesInUse(), 2);
    const auto given_up = make_image(4, 12, 12);
    given_up->texture();
    filter.gaussianFliterEncode(given_up, to);
    EXPECT_EQ(given_up->textureId(), 0u);
    EXPECT_EQ(given_up->readCount(), 0);
}

TEST_F(GaussianFilter, OfAnotherFormatItIsAnErrorLineAndNothingIsDispatched) {
    LogRecorder log;
    tesk::GaussianFilter filter(GL_RGBA32F, &pool, &manager);
    EXPECT_FALSE(filter.isReady());
    const auto from = upload(random_halves(4, 6, 6, 8300), GL_RGBA32F);
    const auto to = make_output(4, 6, 6, GL_RGBA32F);
    filter.gaussianFliterEncode(from, to);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "GaussianFilter: expected the GL format 0x881a, found 0x8814");
    EXPECT_TRUE(std::isnan(read_back(*to).at(0, 0, 0)));
    EXPECT_EQ(from->readCount(), 1);
}

TEST_F(GaussianFilter, WithoutProgramsItIsAnErrorLineAndNothingIsDispatched) {
    tesk::ComputeProgramManager empty(0, "empty");
    LogRecorder log;
    tesk::GaussianFilter filter(GL_RGBA16F, &pool, &empty);
    EXPECT_FALSE(filter.isReady());
    log.lines.clear();
    const auto image = make_output(4, 6, 6);
    filter.gaussianFliterEncode(image, image);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text,
              "GaussianFilter: its programs were not registered when it was made");
}

TEST_F(GaussianFilter, WithoutAPoolItIsAnErrorLine) {
    const auto image = make_output(4, 8, 8);
    LogRecorder log;
    tesk::GaussianFilter(GL_RGBA16F, nullptr, &manager).gaussianFliterEncode(image, image);
    ASSERT_EQ(log.lines.size(), 1u);
    for (const LogRecorder::Line& line : log.lines)
        EXPECT_NE(line.text.find("expected a texture pool, found none"), std::string::npos);
    EXPECT_TRUE(std::isnan(read_back(*image).at(0, 0, 0)));
}

}  // namespace
