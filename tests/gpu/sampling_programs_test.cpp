// Copies and resizing programs, one by one.
#include "support/gl_programs.h"

namespace {

using namespace testing_support;

class CopyPrograms : public ProgramTest {};
class SamplingPrograms : public ProgramTest {};

Tensor cropped_or_zero(const Tensor& src, Size size) {
    Tensor made(src.channels, size.height, size.width);
    for (int c = 0; c < src.channels; ++c) {
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) made.at(c, y, x) = value_or_zero(src, c, y, x);
        }
    }
    return made;
}

TEST_F(CopyPrograms, ReproduceAllFourComponents) {
    unsigned int seed = 5400;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed, -300.0, 300.0);
        expect_same(src, sampled(use("copy_8uc_to_16f"), src, size));
        expect_same(src, sampled(use("copyTex2ImgProgram"), src, size));
        expect_same(src, loaded(use("copy_16f_to_16f"), {src}, size));
    }
}

TEST_F(CopyPrograms, ReadZeroesBeyondTheirSource) {
    const Tensor src = random_halves(4, 6, 7, 5450);
    const Size larger{13, 11};
    expect_same(cropped_or_zero(src, larger), sampled(use("copyTex2ImgProgram"), src, larger));
    expect_same(cropped_or_zero(src, larger), loaded(use("copy_16f_to_16f"), {src}, larger));
}

TEST_F(CopyPrograms, TakeEverySliceOfATensor) {
    for (const int channels : {5, 8, 13}) {
        SCOPED_TRACE(channels);
        const Tensor src = random_halves(4 * ((channels + 3) / 4), 9, 17, 5460 + channels);
        const auto from = upload(src);
        const auto to = make_output(channels, 9, 17);
        tesk::ComputeProgram& program = use("copy_16f_to_16f_image2DArray");
        program.bindImage(0, GL_READ_ONLY, *from);
        program.bindImage(1, GL_WRITE_ONLY, *to);
        program.compute(3, 2, static_cast<unsigned int>((channels + 3) / 4));
        expect_same(src, read_back(*to));
    }
}

/// Bilinear blend of the four pixels around (x, y), with the last row and column for their missing
/// neighbours.
double bilinear(const Tensor& src, int c, double y, double x) {
    const int x0 = static_cast<int>(x), y0 = static_cast<int>(y);
    const double fx = x - x0, fy = y - y0;
    const double top =
        value_clamped(src, c, y0, x0) * (1 - fx) + value_clamped(src, c, y0, x0 + 1) * fx;
    const double bottom =
        value_clamped(src, c, y0 + 1, x0) * (1 - fx) + value_clamped(src, c, y0 + 1, x0 + 1) * fx;
    return top * (1 - fy) + bottom * fy;
}

struct Resize {
    Size src, dst;
};
std::vector<Resize> resizes() {
    return {{{20, 30}, {10, 15}}, {{9, 7}, {21, 33}}, {{16, 16}, {16, 16}}, {{5, 3}, {1, 1}},
            {{1, 1}, {4, 9}},     {{13, 29}, {8, 8}}, {{40, 3}, {1, 20}}};
}

// Positions of up to 64 pixels in float; a value moves by no more than twice its range for each
// pixel that its position moves.
const double position_error = 2.0 * float_error(4, 64.0);

TEST_F(SamplingPrograms, AlignCornersBlendsAroundScaleTimesPosition) {
    unsigned int seed = 5500;
    for (const Resize& r : resizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed);
        const float sx = r.dst.width > 1 ? static_cast<float>(r.src.width - 1) /
                                               static_cast<float>(r.dst.width - 1)
                                         : 0.0f;
        const float sy = r.dst.height > 1 ? static_cast<float>(r.src.height - 1) /
                                                static_cast<float>(r.dst.height - 1)
                                          : 0.0f;
        tesk::ComputeProgram& program = use("sampling_align_corners_program");
        program.setUniform1f("_width_scale_factor", sx);
        program.setUniform1f("_height_scale_factor", sy);
        const Tensor result = sampled(program, src, r.dst);
        Tensor expected(4, r.dst.height, r.dst.width);
        for (int c = 0; c < 4; ++c) {
            for (int y = 0; y < r.dst.height; ++y) {
                for (int x = 0; x < r.dst.width; ++x)
                    expected.at(c, y, x) = bilinear(src, c, double{sy} * y, double{sx} * x);
            }
        }
        expect_halves(expected, result, position_error);
    }
}

TEST_F(SamplingPrograms, PixelCentresAreClampedToZeroFromBelow) {
    unsigned int seed = 5600;
    for (const Resize& r : resizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed);
        const float sx = static_cast<float>(r.src.width) / static_cast<float>(r.dst.width);
        const float sy = static_cast<float>(r.src.height) / static_cast<float>(r.dst.height);
        tesk::ComputeProgram& program = use("sampling_program");
        program.setUniform1f("_width_scale_factor", sx);
        program.setUniform1f("_height_scale_factor", sy);
        const Tensor result = sampled(program, src, r.dst);
        Tensor expected(4, r.dst.height, r.dst.width);
        for (int c = 0; c < 4; ++c) {
            for (int y = 0; y < r.dst.height; ++y) {
                for (int x = 0; x < r.dst.width; ++x) {
                    expected.at(c, y, x) =
                        bilinear(src, c, std::max(double{sy} * (y + 0.5) - 0.5, 0.0),
                                 std::max(double{sx} * (x + 0.5) - 0.5, 0.0));
                }
            }
        }
        expect_halves(expected, result, position_error);
    }
}

TEST_F(SamplingPrograms, SampleSixteenAndThirtyTwoGiveTheFilteredTexelAtTheCornerOfThePixel) {
    unsigned int seed = 5700;
    for (const float radio : {4.0f, 1.0f, 0.25f, 1.7f}) {
        for (const bool wide : {false, true}) {
            SCOPED_TRACE(++seed);
            const Tensor src = random_halves(4, 12, 18, seed);
            const Size dst{static_cast<int>(12.0f / radio) + 1, static_cast<int>(18.0f / radio)};
            tesk::ComputeProgram& program = use(wide ? "sample32f_program" : "sample16f_program");
            program.setUniform1f("sampleRadio", radio);
            const auto from = upload(src);
            const auto to = make_output(4, dst.height, dst.width, wide ? GL_RGBA32F : GL_RGBA16F);
            program.setUnifromTexture("src", 0, *from);
            program.bindImage(1, GL_WRITE_ONLY, *to);
            const Tensor result = dispatched(program, *to);
            Tensor expected(4, dst.height, dst.width), tolerance(4, dst.height, dst.width);
            for (int c = 0; c < 4; ++c) {
                for (int y = 0; y < dst.height; ++y) {
                    for (int x = 0; x < dst.width; ++x) {
                        const LinearSample sample = linear_sample(
                            src, c, double{radio} * x / src.width, double{radio} * y / src.height);
                        expected.at(c, y, x) = sample.value;
                        tolerance.at(c, y, x) = sample.tolerance;
                    }
                }
            }
            expect_halves(expected, result, position_error, &tolerance);
        }
    }
}

}  // namespace
