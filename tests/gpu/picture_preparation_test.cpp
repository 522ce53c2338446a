// The programs that bring a picture into the form a network wants, one by one.
#include <functional>

#include "support/gl_programs.h"

namespace {

using namespace testing_support;

using Texel = std::vector<double>;

class PicturePreparation : public ProgramTest {};

struct PixelProgram {
    std::string name;
    bool sampler;
    std::function<Texel(const Texel&)> formula;
    double highest = 1.0;    ///< of the components read
    double magnitude = 1.0;  ///< of the numbers on the way to the result
};

Texel less_mean(const Texel& v) {
    return {v[0] - 0.485, v[1] - 0.456, v[2] - 0.406, 0.0};
}

const std::vector<PixelProgram>& pixel_programs() {
    static const std::vector<PixelProgram> programs = {
        {"char_to_float16_program", true,
         [](const Texel& v) {
             return Texel{v[0], v[1], v[2], 0};
         }},
        {"swapRGB_program", true,
         [](const Texel& v) {
             return Texel{v[2], v[1], v[0], 0};
         }},
        {"preprocess_program", false, less_mean},
        {"faceDetection_preproess_program", false,
         [](const Texel& v) {
             const Texel m = less_mean(v);
             return Texel{m[0] / 0.229, m[1] / 0.224, m[2] / 0.225, 0};
         },
         1.0, 4.0},
        {"preprocess_retinaNet_program", false,
         [](const Texel& v) {
             const auto f = [](double p) { return p * 255.0 / 128.0 - 1.0; };
             return Texel{f(v[2]), f(v[1]), f(v[0]), 0};
         },
         1.0, 2.0},
        {"preprocess_mobilenet_program", false,
         [](const Texel& v) {
             return Texel{v[0] - 0.40760392, v[1] - 0.45795686, v[2] - 0.48501960, 0};
         }},
        {"preprocess_bodylandmarks_program", false,
         [](const Texel& v) {
             return Texel{(v[2] - 0.5) * 2, (v[1] - 0.5) * 2, (v[0] - 0.5) * 2, 0};
         }},
        {"normalization_bodylandmarks_program", false,
         [](const Texel& v) {
             return Texel{v[0] / 255, v[1] / 255, v[2] / 255, 0};
         },
         255.0},
    };
    return programs;
}

Texel texel_of(const Tensor& picture, int y, int x) {
    return {picture.at(0, y, x), picture.at(1, y, x), picture.at(2, y, x), picture.at(3, y, x)};
}

TEST_F(PicturePreparation, PixelProgramsFollowTheirFormulas) {
    unsigned int seed = 4100;
    for (const PixelProgram& p : pixel_programs()) {
        for (const Size size : sizes()) {
            SCOPED_TRACE(p.name + ", seed " + std::to_string(++seed));
            const Tensor src = random_halves(4, size.height, size.width, seed, 0.0, p.highest);
            tesk::ComputeProgram& program = use(p.name);
            const Tensor result =
                p.sampler ? sampled(program, src, size) : loaded(program, {src}, size);
            expect_halves(picture_of(size.height, size.width,
                                     [&](int y, int x) { return p.formula(texel_of(src, y, x)); }),
                          result, float_error(4, p.magnitude));
        }
    }
}

TEST_F(PicturePreparation, PixelProgramsLeaveWhatLiesBeyondTheirSourceInBounds) {
    // The destination is larger than the source: what is read there counts as 0.
    const Tensor src = random_halves(4, 5, 6, 4090, 0.0, 1.0);
    for (const PixelProgram& p : pixel_programs()) {
        if (p.sampler) continue;
        SCOPED_TRACE(p.name);
        const Tensor result = loaded(use(p.name), {src}, {11, 13});
        expect_halves(picture_of(11, 13,
                                 [&](int y, int x) {
                                     Texel v(4);
                                     for (int c = 0; c < 4; ++c)
                                         v[static_cast<size_t>(c)] = value_or_zero(src, c, y, x);
                                     return p.formula(v);
                                 }),
                      result, float_error(4, p.magnitude));
    }
}

TEST_F(PicturePreparation, PeleePutsThePreviousMaskIntoTheFourthComponent) {
    unsigned int seed = 4200;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed, 0.0, 1.0);
        const Tensor pre = random_halves(4, size.height, size.width, seed + 1000, 0.0, 1.0);
        const Tensor result = loaded(use("pelee_preprocess_program"), {src, pre}, size);
        expect_halves(picture_of(size.height, size.width,
                                 [&](int y, int x) {
                                     Texel v = less_mean(texel_of(src, y, x));
                                     v[3] = pre.at(0, y, x);
                                     return v;
                                 }),
                      result, float_error(1, 1.0));
    }
}

TEST_F(PicturePreparation, StaticSegmentPacksPictureAndBackgroundIntoSixChannels) {
    unsigned int seed = 4300;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed, 0.0, 1.0);
        const Tensor bg = random_halves(4, size.height, size.width, seed + 1000, 0.0, 1.0);
        const auto s = upload(src), b = upload(bg);
        const auto dst = make_output(6, size.height, size.width);
        tesk::ComputeProgram& program = use("preprocess_static_segment_program");
        program.bindImage(0, GL_READ_ONLY, *s);
        program.bindImage(1, GL_READ_ONLY, *b);
        program.bindImage(2, GL_WRITE_ONLY, *dst);
        const Tensor result = dispatched(program, *dst);
        Tensor expected(8, size.height, size.width);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                const Texel vs = less_mean(texel_of(src, y, x)), vb = less_mean(texel_of(bg, y, x));
                const double channels[8] = {vs[0], vs[1], vs[2], vb[0], vb[1], vb[2], 0, 0};
                for (int c = 0; c < 8; ++c) expected.at(c, y, x) = channels[c];
            }
        }
        expect_halves(expected, result, float_error(1, 1.0));
    }
}

TEST_F(PicturePreparation, ShuffleMakesTwelveChannelsOfABlockAndZeroesBeyondTheEdge) {
    unsigned int seed = 4400;
    for (const Size size : sizes()) {
        // An odd source leaves the last row and column of blocks half empty.
        for (const int lack : {0, 1}) {
            SCOPED_TRACE(++seed);
            const Tensor src =
                random_halves(4, 2 * size.height - lack, 2 * size.width - lack, seed, 0.0, 1.0);
            const auto from = upload(src);
            const auto dst = make_output(12, size.height, size.width);
            tesk::ComputeProgram& program = use("retinaNet_preprocess_shuffle_program");
            program.setUnifromTexture("src", 0, *from);
            program.bindImage(1, GL_WRITE_ONLY, *dst);
            const Tensor result = dispatched(program, *dst);
            Tensor expected(12, size.height, size.width);
            for (int y = 0; y < size.height; ++y) {
                for (int x = 0; x < size.width; ++x) {
                    for (int pixel = 0; pixel < 4; ++pixel) {
                        for (int c = 0; c < 3; ++c) {
                            expected.at(3 * pixel + c, y, x) =
                                value_or_zero(src, c, 2 * y + pixel / 2, 2 * x + pixel % 2);
                        }
                    }
                }
            }
            expect_same(expected, result);
        }
    }
}

// --- Resizing by GL's linear filter -----------------------------------------------------------

/// Coordinates of a destination pixel in pixels of the source.
using Position = std::function<std::pair<double, double>(int y, int x)>;

struct Expectation {
    Tensor value;
    Tensor tolerance;
};

/// Linear samples at `position` / size of the source.
Expectation linear_picture(const Tensor& src, int height, int width, const Position& position) {
    Expectation made{Tensor(4, height, width), Tensor(4, height, width)};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const auto [px, py] = position(y, x);
            for (int c = 0; c < 4; ++c) {
                const LinearSample sample = linear_sample(src, c, px / src.width, py / src.height);
                made.value.at(c, y, x) = sample.value;
                made.tolerance.at(c, y, x) = sample.tolerance;
            }
        }
    }
    return made;
}

// Coordinates of a few tens of pixels, in float: off by a few parts in 2^24, and a value moves by
// no more than the coordinate does.
const double coordinate_error = float_error(6, 128.0);

struct Resize {
    Size src, dst;
};
std::vector<Resize> resizes() {
    return {{{20, 30}, {10, 15}}, {{9, 7}, {21, 33}}, {{16, 16}, {16, 16}}, {{13, 29}, {8, 8}}};
}

TEST_F(PicturePreparation, DownscaleUpscaleSamplesAtTheCornersOfPixels) {
    unsigned int seed = 4500;
    for (const Resize& r : resizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed, 0.0, 1.0);
        const float sx = static_cast<float>(r.src.width) / static_cast<float>(r.dst.width);
        const float sy = static_cast<float>(r.src.height) / static_cast<float>(r.dst.height);
        tesk::ComputeProgram& program = use("downscale_upscale_program");
        program.setUniform1f("widthScale", sx);
        program.setUniform1f("heightScale", sy);
        const Expectation expected = linear_picture(
            src, r.dst.height, r.dst.width,
            [&](int y, int x) { return std::make_pair(double{sx} * x, double{sy} * y); });
        expect_halves(expected.value, sampled(program, src, r.dst), coordinate_error,
                      &expected.tolerance);
    }
}

TEST_F(PicturePreparation, HandsResizeToByteValuesLessTheirMeanWithFirstAndThirdSwapped) {
    const double mean[4] = {102.9801, 115.9465, 122.7717, 0.0};
    unsigned int seed = 4600;
    for (const Resize& r : resizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed, 0.0, 1.0);
        const float sx = static_cast<float>(r.src.width) / static_cast<float>(r.dst.width);
        const float sy = static_cast<float>(r.src.height) / static_cast<float>(r.dst.height);
        tesk::ComputeProgram& program = use("hands_precoss_downscale_upscale_program");
        program.setUniform1f("widthScale", sx);
        program.setUniform1f("heightScale", sy);
        const Tensor result = sampled(program, src, r.dst, 6, 10);
        Expectation plain = linear_picture(src, r.dst.height, r.dst.width, [&](int y, int x) {
            return std::make_pair(double{sx} * x, double{sy} * y);
        });
        Expectation expected = plain;
        for (int y = 0; y < r.dst.height; ++y) {
            for (int x = 0; x < r.dst.width; ++x) {
                for (int c = 0; c < 4; ++c) {
                    const int from = c == 3 ? 3 : 2 - c;
                    expected.value.at(c, y, x) = plain.value.at(from, y, x) * 255.0 - mean[from];
                    expected.tolerance.at(c, y, x) = plain.tolerance.at(from, y, x) * 255.0;
                }
            }
        }
        expect_halves(expected.value, result, coordinate_error * 255.0, &expected.tolerance);
    }
}

TEST_F(PicturePreparation, RotatingResizesTurnTheirSourceByAQuarterEachTheirOwnWay) {
    unsigned int seed = 4700;
    for (const Resize& r : resizes()) {
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed, 0.0, 1.0);
        const float sx = static_cast<float>(r.src.width) / static_cast<float>(r.dst.height);
        const float sy = static_cast<float>(r.src.height) / static_cast<float>(r.dst.width);
        for (const bool down : {true, false}) {
            SCOPED_TRACE(++seed);
            tesk::ComputeProgram& program =
                use(down ? "downscale_rotate_program" : "upscale_rotate_program");
            program.setUniform1f("widthScale", sx);
            program.setUniform1f("heightScale", sy);
            const Expectation expected =
                linear_picture(src, r.dst.height, r.dst.width, [&](int y, int x) {
                    return down ? std::make_pair(double{sx} * (r.dst.height - y), double{sy} * x)
                                : std::make_pair(double{sx} * y, double{sy} * (r.dst.width - x));
                });
            expect_halves(expected.value, sampled(program, src, r.dst), coordinate_error,
                          &expected.tolerance);
        }
    }
}

TEST_F(PicturePreparation, CopyWithRotateReadsZeroesForRowZero) {
    unsigned int seed = 4800;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.width, size.height, seed, 0.0, 1.0);
        const Tensor result = sampled(use("copy_8uc_to_16f_with_rotate"), src, size);
        expect_same(picture_of(size.height, size.width,
                               [&](int y, int x) {
                                   Texel v(4);
                                   for (int c = 0; c < 4; ++c)
                                       v[static_cast<size_t>(c)] =
                                           value_or_zero(src, c, x, size.height - y);
                                   return v;
                               }),
                    result);
        for (int x = 0; x < size.width; ++x) EXPECT_EQ(result.at(0, 0, x), 0.0);
    }
}

TEST_F(PicturePreparation, GestureLetterboxesCoverTheBandWithBothItsEnds) {
    const double mean[4] = {0.4532, 0.4348, 0.4114, 0.0};
    unsigned int seed = 4900;
    for (const bool with_mean : {false, true}) {
        for (const bool wide : {true, false}) {
            SCOPED_TRACE(++seed);
            const int src_h = wide ? 18 : 32, src_w = wide ? 32 : 18;
            const int side = 20, covered = 11, begin = 4, end = begin + covered;
            const Tensor src = random_halves(4, src_h, src_w, seed, 0.0, 1.0);
            const float sx = static_cast<float>(src_w) / static_cast<float>(wide ? side : covered);
            const float sy = static_cast<float>(src_h) / static_cast<float>(wide ? covered : side);
            tesk::ComputeProgram& program =
                use(with_mean ? "gesture_downscale_upscale_with_avg_program"
                              : "gesture_downscale_upscale_program");
            program.setUniform1f("widthScale", sx);
            program.setUniform1f("heightScale", sy);
            program.setUniform1i("widthGreaterThanHeight", wide ? 1 : 0);
            program.setUniform1i("begPos", begin);
            program.setUniform1i("endPos", end);
            const Tensor result = sampled(program, src, {side, side});
            Expectation expected = linear_picture(src, side, side, [&](int y, int x) {
                const int row = wide ? y - begin : y, column = wide ? x : x - begin;
                return std::make_pair(std::min(double{sx} * (column + 1), double(src_w)),
                                      std::min(double{sy} * (row + 1), double(src_h)));
            });
            for (int y = 0; y < side; ++y) {
                for (int x = 0; x < side; ++x) {
                    const int along = wide ? y : x;
                    for (int c = 0; c < 4; ++c) {
                        double& value = expected.value.at(c, y, x);
                        if (along < begin || along > end) {
                            value = with_mean || c == 3 ? 0.0 : 0.5;
                            expected.tolerance.at(c, y, x) = 0.0;
                        } else if (with_mean) {
                            value -= mean[c];
                        }
                    }
                }
            }
            expect_halves(expected.value, result, coordinate_error, &expected.tolerance);
        }
    }
}

// --- Crops ------------------------------------------------------------------------------------

/// A whole part that float arithmetic may cut either way: positions this close to a whole number
/// are looked at from both sides.
const double cut_slack = 1e-4;

/// For each texel one of the expectations holds.
void expect_one_of(const std::vector<Expectation>& candidates, const Tensor& actual, double error) {
    int wrong = 0;
    for (int y = 0; y < actual.height; ++y) {
        for (int x = 0; x < actual.width; ++x) {
            const bool fits = std::any_of(
                candidates.begin(), candidates.end(), [&](const Expectation& candidate) {
                    for (int c = 0; c < 4; ++c) {
                        const double value = candidate.value.at(c, y, x);
                        const double allowed = error + store_error(std::fabs(value) + error) +
                                               candidate.tolerance.at(c, y, x);
                        if (!(std::fabs(actual.at(c, y, x) - value) <= allowed)) return false;
                    }
                    return true;
                });
            if (!fits && ++wrong <= 3) {
                ADD_FAILURE() << "row " << y << ", column " << x << ": expected "
                              << candidates[0].value.at(0, y, x) << ", found "
                              << actual.at(0, y, x);
            }
        }
    }
    EXPECT_EQ(wrong, 0);
}

struct Crop {
    Size src, dst;
    int x, y, width, height;
};
std::vector<Crop> crops() {
    return {{{24, 32}, {12, 12}, 4, 3, 18, 18},    // inside
            {{24, 32}, {19, 21}, -5, -7, 40, 50},  // beyond all four edges
            {{9, 9}, {16, 16}, 0, 0, 9, 9},        // the whole picture
            {{15, 11}, {8, 8}, 30, 30, 10, 10}};   // nothing of it
}

Expectation face_crop(const Tensor& src, const Crop& crop, bool tracking, double nudge) {
    const double mean[3] = {0.485, 0.456, 0.406}, deviation[3] = {0.229, 0.224, 0.225};
    Expectation made{Tensor(4, crop.dst.height, crop.dst.width),
                     Tensor(4, crop.dst.height, crop.dst.width)};
    for (int y = 0; y < crop.dst.height; ++y) {
        for (int x = 0; x < crop.dst.width; ++x) {
            const double px = (x + 1.0) / crop.dst.width * crop.width + crop.x;
            const double py = (y + 1.0) / crop.dst.height * crop.height + crop.y;
            const double cut_x = std::trunc(px + nudge), cut_y = std::trunc(py + nudge);
            const bool outside =
                tracking ? cut_x < 0 || cut_y < 0 || cut_x >= src.width || cut_y >= src.height
                         : cut_x < 1 || cut_y < 1 || cut_x > src.width || cut_y > src.height;
            for (int c = 0; c < 3; ++c) {
                const int from = tracking ? c : 2 - c;
                LinearSample sample = linear_sample(src, from, px / src.width, py / src.height);
                if (outside) sample = {0.5, 0.0};
                made.value.at(c, y, x) =
                    tracking ? (sample.value - mean[c]) / deviation[c] : (sample.value - 0.5) * 2.0;
                made.tolerance.at(c, y, x) =
                    sample.tolerance * (tracking ? 1.0 / deviation[c] : 2.0);
            }
        }
    }
    return made;
}

TEST_F(PicturePreparation, FaceCropsTakeGreyForWhatLiesOutsideTheirPicture) {
    unsigned int seed = 5000;
    for (const Crop& crop : crops()) {
        for (const bool tracking : {false, true}) {
            SCOPED_TRACE(++seed);
            const Tensor src = random_halves(4, crop.src.height, crop.src.width, seed, 0.0, 1.0);
            tesk::ComputeProgram& program =
                use(tracking ? "faceDetection_getFaceImage_forTracking_program"
                             : "faceDetection_getFaceImage_program");
            program.setUniform1i("src_w", crop.src.width);
            program.setUniform1i("src_h", crop.src.height);
            program.setUniform1i("faceImage_w", crop.width);
            program.setUniform1i("faceImage_h", crop.height);
            program.setUniform1i("x_start", crop.x);
            program.setUniform1i("y_start", crop.y);
            const Tensor result = sampled(program, src, crop.dst);
            expect_one_of({face_crop(src, crop, tracking, -cut_slack),
                           face_crop(src, crop, tracking, cut_slack)},
                          result, coordinate_error * 5.0);
            for (const double w : std::vector<double>(
                     result.values.end() - crop.dst.height * crop.dst.width, result.values.end())) {
                ASSERT_EQ(w, 0.0);
            }
        }
    }
}

Expectation local_crop(const Tensor& src, const Crop& crop, double nudge) {
    const double mean[3] = {123.675, 116.28, 103.52};
    Expectation made{Tensor(4, crop.dst.height, crop.dst.width),
                     Tensor(4, crop.dst.height, crop.dst.width)};
    const bool wide = crop.width >= crop.height;
    const double longer = std::max(crop.width, crop.height);
    const double shorter = std::min(crop.width, crop.height);
    const int band = static_cast<int>((longer - shorter) / longer *
                                      (wide ? crop.dst.width : crop.dst.height) / 2.0);
    for (int y = 0; y < crop.dst.height; ++y) {
        for (int x = 0; x < crop.dst.width; ++x) {
            const int along = wide ? y : x, extent = wide ? crop.dst.height : crop.dst.width;
            if (along <= band || along >= extent - band) continue;
            const double px = double(x) / crop.dst.width * longer + crop.x;
            const double py = double(y) / crop.dst.height * longer + crop.y;
            const int sx = static_cast<int>(px + nudge), sy = static_cast<int>(py + nudge);
            for (int c = 0; c < 3; ++c) {
                made.value.at(c, y, x) =
                    (value_or_zero(src, 2 - c, sy, sx) * 255.0 - mean[2 - c]) * 0.017;
            }
        }
    }
    return made;
}

TEST_F(PicturePreparation, LocalCropFillsTheLongerSideAndZeroesBandsWithTheRowAtTheirWidth) {
    std::vector<Crop> all = crops();
    all.push_back({{40, 40}, {20, 20}, 2, 1, 30, 17});
    all.push_back({{40, 40}, {21, 21}, 2, 1, 17, 30});
    unsigned int seed = 5100;
    for (const Crop& crop : all) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, crop.src.height, crop.src.width, seed, 0.0, 1.0);
        tesk::ComputeProgram& program = use("getLocalImgFromSrc_program");
        program.setUniform1f("src_width", static_cast<float>(crop.width));
        program.setUniform1f("src_height", static_cast<float>(crop.height));
        program.setUniform1f("x_start", static_cast<float>(crop.x));
        program.setUniform1f("y_start", static_cast<float>(crop.y));
        const Tensor result = sampled(program, src, crop.dst);
        expect_one_of({local_crop(src, crop, -cut_slack), local_crop(src, crop, cut_slack)}, result,
                      float_error(3, 255.0) * 0.017);
    }
}

// --- Warps ------------------------------------------------------------------------------------

TEST_F(PicturePreparation, BodyLandmarksWarpMapsPixelsToPixels) {
    unsigned int seed = 5200;
    for (const Resize& r : resizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed, 0.0, 1.0);
        float a[6] = {0.9f, -0.4f, 3.25f, 0.3f, 1.2f, -2.5f};
        tesk::ComputeProgram& program = use("bodylandmarks_affine_program");
        program.setUniform1fv("affine_params", a, 6);
        const Expectation expected =
            linear_picture(src, r.dst.height, r.dst.width, [&](int y, int x) {
                return std::make_pair(double{a[0]} * x + double{a[1]} * y + double{a[2]},
                                      double{a[3]} * x + double{a[4]} * y + double{a[5]});
            });
        expect_halves(expected.value, sampled(program, src, r.dst), coordinate_error,
                      &expected.tolerance);
    }
}

TEST_F(PicturePreparation, FaceWarpTakesItsMapFromTheFirstPixelOfATensor) {
    unsigned int seed = 5300;
    for (const Resize& r : resizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed, 0.0, 1.0);
        Tensor affine = random_halves(8, 2, 3, seed + 1000);
        const double a[6] = {0.75, -0.25, 0.125, 0.3125, 0.875, -0.0625};
        for (int i = 0; i < 6; ++i) affine.at(i, 0, 0) = a[i];
        const auto from = upload(src), map = upload(affine);
        const auto dst = make_output(4, r.dst.height, r.dst.width);
        tesk::ComputeProgram& program = use("face_affine_program");
        program.setUnifromTexture("src", 0, *from);
        program.bindImage(1, GL_READ_ONLY, *map);
        program.bindImage(2, GL_WRITE_ONLY, *dst);
        const Tensor result = dispatched(program, *dst);
        const Expectation expected =
            linear_picture(src, r.dst.height, r.dst.width, [&](int y, int x) {
                const double px = -1.0 + x * 2.0 / (r.dst.width - 1);
                const double py = -1.0 + y * 2.0 / (r.dst.height - 1);
                const auto moved = [](double p) { return ((p * 0.5 + 0.5) * 95.0 + 0.5) / 95.0; };
                return std::make_pair(moved(a[0] * px + a[1] * py + a[2]) * r.src.width,
                                      moved(a[3] * px + a[4] * py + a[5]) * r.src.height);
            });
        expect_halves(expected.value, result, coordinate_error, &expected.tolerance);
    }
}

}  // namespace
