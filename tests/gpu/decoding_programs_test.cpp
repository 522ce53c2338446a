// The programs that turn the outputs of networks into masks, points and boxes.

#include <algorithm>

#include "support/tensor_programs.h"

namespace {

using namespace testing_support;

constexpr unsigned int seed = 40211;

// One pixel, one group of 8 by 8, and maps that leave groups partly filled.
const MapSize map_sizes[] = {{1, 1}, {8, 8}, {13, 11}, {5, 26}};

std::string text(MapSize size) {
    return std::to_string(size.height) + " x " + std::to_string(size.width);
}

class DecodingProgramTest : public TensorProgramTest {
protected:
    DecodingProgramTest() : TensorProgramTest(seed) {}

    /// Runs a program from image 0 to image 1, or from sampler `src` to image 1.
    void run(const std::string& name, tesk::Image& src, tesk::Image& dst, bool sampled = false) {
        const auto program = use_program(name);
        if (sampled) {
            program->setUnifromTexture("src", 0, src);
        } else {
            program->bindImage(0, GL_READ_ONLY, src);
        }
        program->bindImage(1, GL_WRITE_ONLY, dst);
        dispatch(*program, dst.width(), dst.height(), (dst.channels() + 3) / 4);
    }
};

// ---- Soft arg max
// --------------------------------------------------------------------------------

struct Peak {
    double x, y, spread;
};

Peak soft_arg_max(const Tensor& map, int channel, double beta) {
    double top = -HUGE_VAL;
    for (int y = 0; y < map.height; ++y) {
        for (int x = 0; x < map.width; ++x) top = std::max(top, map.at(channel, y, x) * beta);
    }
    const auto coordinate = [](int i, int size) {
        return size > 1 ? 2.0 * i / (size - 1) - 1.0 : -1.0;
    };
    double sum = 0.0, sum_x = 0.0, sum_y = 0.0;
    for (int y = 0; y < map.height; ++y) {
        for (int x = 0; x < map.width; ++x) {
            const double weight = std::exp(map.at(channel, y, x) * beta - top);
            sum += weight;
            sum_x += weight * coordinate(x, map.width);
            sum_y += weight * coordinate(y, map.height);
        }
    }
    Peak peak{sum_x / sum, sum_y / sum, 0.0};
    double squares = 0.0;
    for (int y = 0; y < map.height; ++y) {
        for (int x = 0; x < map.width; ++x) {
            const double dx = coordinate(x, map.width) - peak.x;
            const double dy = coordinate(y, map.height) - peak.y;
            squares += std::exp(map.at(channel, y, x) * beta - top) * (dx * dx + dy * dy);
        }
    }
    peak.spread = std::sqrt(squares / sum);
    return peak;
}

/// What float arithmetic may do to a weighted mean of numbers within -1 to 1: the exponents span
/// `range`, an exp is good to 3 + 2 |x| units and its argument to |x|, a sum of n to n units; once
/// in the numerator, once in the denominator.
double mean_error(const Tensor& map, double range) {
    const double n = static_cast<double>(map.height) * map.width;
    return 2.0 * (3.0 + 3.0 * range + n) * float_unit;
}

std::vector<Peak> peaks_of(const Tensor& maps, double beta) {
    std::vector<Peak> peaks;
    for (int c = 0; c < maps.channels; ++c) peaks.push_back(soft_arg_max(maps, c, beta));
    return peaks;
}

/// Channels 4z and 4z + 1 as (x0, y0, x1, y1) in slice 2z, the other two in slice 2z + 1: in other
/// words, point after point.
Tensor points_of(const std::vector<Peak>& peaks) {
    Tensor points(static_cast<int>(peaks.size()) * 2, 1, 1);
    for (size_t i = 0; i < peaks.size(); ++i) {
        points.values[2 * i] = peaks[i].x;
        points.values[2 * i + 1] = peaks[i].y;
    }
    return points;
}

TEST_F(DecodingProgramTest, SoftArgMaxGivesTheWeightedMeanPositionOfEachChannel) {
    for (const MapSize size : {MapSize{1, 1}, {8, 8}, {1, 7}, {32, 32}, {13, 11}, {40, 9}}) {
        for (const double beta : {1.0, 20.0}) {
            SCOPED_TRACE(text(size) + ", beta " + std::to_string(beta));
            const Tensor maps = random_halves(12, size.height, size.width, seed);
            const auto src = upload(maps);
            const auto dst = make_output(24, 1, 1);
            const auto program = use_program("alignment_argMax_program");
            program->bindImage(0, GL_READ_ONLY, *src);
            program->bindImage(1, GL_WRITE_ONLY, *dst);
            program->setUniform1f("_beta", static_cast<float>(beta));
            program->compute(1, 1, 3);
            expect_texture(read_back(*dst), points_of(peaks_of(maps, beta)), 0.0,
                           mean_error(maps, 2.0 * beta));
        }
    }
}

TEST_F(DecodingProgramTest, SoftArgMaxStaysFiniteWhereTheExponentsOverflow) {
    Tensor maps = random_halves(8, 9, 9, seed, 0.0, 500.0);
    for (int c = 0; c < 8; ++c) maps.at(c, c, 8 - c) = 1000.0;
    const auto src = upload(maps);
    const auto dst = make_output(16, 1, 1);
    const auto program = use_program("alignment_argMax_program");
    program->bindImage(0, GL_READ_ONLY, *src);
    program->bindImage(1, GL_WRITE_ONLY, *dst);
    program->setUniform1f("_beta", 100.0f);
    program->compute(1, 1, 2);
    const Tensor points = read_back(*dst);
    for (int c = 0; c < 8; ++c) {
        EXPECT_EQ(points.at(2 * c, 0, 0), (8 - c) / 4.0 - 1.0) << c;
        EXPECT_EQ(points.at(2 * c + 1, 0, 0), c / 4.0 - 1.0) << c;
    }
}

TEST_F(DecodingProgramTest, SoftArgMaxIntoABufferGivesTheSamePoints) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        const Tensor maps = random_halves(8, size.height, size.width, seed);
        const auto src = upload(maps);
        const auto dst = make_untouched_buffer(2 * 8 + 4);
        const auto program = use_program("alignment_argMax_trans2buffer_program");
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindBuffer(1, *dst);
        program->setUniform1f("_beta", 10.0f);
        program->compute(1, 1, 3);  // one group more than slices
        std::vector<double> want = points_of(peaks_of(maps, 10.0)).values;
        want.resize(want.size() + 4, untouched);
        expect_floats(read_buffer(*dst), want, 0.0, mean_error(maps, 20.0));
    }
}

TEST_F(DecodingProgramTest, SoftArgMaxWithConfidenceAddsTheSpreadAroundThePoint) {
    for (const MapSize size : {MapSize{8, 8}, {32, 32}, {13, 11}, {2, 31}}) {
        SCOPED_TRACE(text(size));
        const double beta = 3.0;
        const Tensor maps = random_halves(8, size.height, size.width, seed);
        const auto src = upload(maps);
        const auto dst = make_output(16, 1, 1);
        const auto conf = make_untouched_buffer(8 + 4);
        const auto program = use_program("alignment_argMax_with_confidence_program");
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        program->bindBuffer(2, *conf);
        program->setUniform1f("_beta", static_cast<float>(beta));
        program->compute(1, 1, 3);
        const std::vector<Peak> peaks = peaks_of(maps, beta);
        const double error = mean_error(maps, 2.0 * beta);
        expect_texture(read_back(*dst), points_of(peaks), 0.0, error);

        // Squared distances are at most 8 and change by at most 4 for each unit that the point
        // moves; the root passes on d / (2 root).
        std::vector<double> want(12, untouched);
        double smallest = 1.0;
        for (size_t i = 0; i < peaks.size(); ++i) {
            want[i] = peaks[i].spread;
            smallest = std::min(smallest, peaks[i].spread);
        }
        expect_floats(read_buffer(*conf), want, 4 * float_unit,
                      (8.0 + 2.0 * 4.0) * error / (2.0 * smallest));
    }
}

TEST_F(DecodingProgramTest, ConfidenceLooksAtTheFirst32ColumnsAndRowsOfALargerMap) {
    // The arrays of the shader end there; the rest of a larger map has no part in the sums.
    Tensor maps(8, 40, 35, 0.0);
    for (int c = 0; c < 8; ++c) {
        maps.at(c, 5, 3 + c) = 60.0;
        maps.at(c, 39, 34) = 600.0;
    }
    const auto src = upload(maps);
    const auto dst = make_output(16, 1, 1);
    const auto conf = make_untouched_buffer(8);
    const auto program = use_program("alignment_argMax_with_confidence_program");
    program->bindImage(0, GL_READ_ONLY, *src);
    program->bindImage(1, GL_WRITE_ONLY, *dst);
    program->bindBuffer(2, *conf);
    program->setUniform1f("_beta", 1.0f);
    program->compute(1, 1, 2);
    const Tensor points = read_back(*dst);
    for (int c = 0; c < 8; ++c) {
        const double x = 2.0 * (3 + c) / 34 - 1.0, y = 2.0 * 5 / 39 - 1.0;
        EXPECT_NEAR(points.at(2 * c, 0, 0), x, half_unit(x)) << c;
        EXPECT_NEAR(points.at(2 * c + 1, 0, 0), y, half_unit(y)) << c;
    }
}

// ---- Landmarks through an affine map
// -------------------------------------------------------------

Tensor mapped_points(const Tensor& points, const Tensor& map) {
    Tensor result(points.channels, 1, 1);
    for (int i = 0; i + 1 < points.channels; i += 2) {
        const double x = points.at(i, 0, 0), y = points.at(i + 1, 0, 0);
        for (int row = 0; row < 2; ++row) {
            result.at(i + row, 0, 0) = map.at(3 * row, 0, 0) * x + map.at(3 * row + 1, 0, 0) * y +
                                       map.at(3 * row + 2, 0, 0);
        }
    }
    return result;
}

// Three products of numbers within -1 to 1, summed.
constexpr double affine_error = 3 * 3 * float_unit;

TEST_F(DecodingProgramTest, DeAffineMapsBothPointsOfEachSliceIntoTheBuffer) {
    for (const int slices : {2, 5, 33}) {
        SCOPED_TRACE("slices " + std::to_string(slices));
        const Tensor points = random_halves(4 * slices, 1, 1, seed);
        const Tensor map = random_halves(6, 1, 1, seed + 1);
        const auto fcOut = upload(points);
        const auto stnOut = upload(map, GL_RGBA16F, 9.0f);
        const auto dst = make_untouched_buffer(static_cast<size_t>(4 * slices + 4));
        const auto program = use_program("fcOut_deAffine_program");
        program->bindImage(0, GL_READ_ONLY, *fcOut);
        program->bindImage(1, GL_READ_ONLY, *stnOut);
        program->bindBuffer(2, *dst);
        program->compute(1, 1, static_cast<unsigned int>(slices) + 1);
        std::vector<double> want = mapped_points(points, map).values;
        want.resize(want.size() + 4, untouched);
        expect_floats(read_buffer(*dst), want, 0.0, affine_error);
    }
}

TEST_F(DecodingProgramTest, DeAffineIntoAnImageFillsTheRowOfTheIndex) {
    const int slices = 5;
    const Tensor points = random_halves(4 * slices, 1, 1, seed);
    const Tensor map = random_halves(6, 1, 1, seed + 1);
    const auto fcOut = upload(points);
    const auto stnOut = upload(map);
    const auto coorOut = make_output(4, 3, slices);
    const auto program = use_program("fcOut_deAffine_to_image_program");
    program->bindImage(0, GL_READ_ONLY, *fcOut);
    program->bindImage(1, GL_READ_ONLY, *stnOut);
    program->bindImage(2, GL_WRITE_ONLY, *coorOut);
    program->setUniform1i("index_h", 1);
    program->compute(1, 1, slices);
    const Tensor mapped = mapped_points(points, map);
    Tensor want(4, 3, slices, untouched);
    for (int z = 0; z < slices; ++z) {
        for (int c = 0; c < 4; ++c) want.at(c, 1, z) = mapped.at(4 * z + c, 0, 0);
    }
    expect_texture(read_back(*coorOut), want, 0.0, affine_error);

    // A row that the image lacks is dropped.
    program->setUniform1i("index_h", 3);
    program->compute(1, 1, slices);
    expect_texture(read_back(*coorOut), want, 0.0, affine_error);
}

// ---- Element by element
// --------------------------------------------------------------------------

TEST_F(DecodingProgramTest, ComputeExpIsExpOfTwiceTheValue) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        const Tensor in = random_halves(12, size.height, size.width, seed, -4.0, 4.0);
        const auto src = upload(in);
        const auto dst = make_output(12, size.height, size.width);
        run("faceDetection_computeExp_program", *src, *dst);
        Tensor want = in;
        for (double& value : want.values) value = std::exp(2.0 * value);
        expect_texture(read_back(*dst), want, (3.0 + 2.0 * 8.0) * float_unit);
    }
}

TEST_F(DecodingProgramTest, SoftmaxOnChannelsKeepsTheSecondClass) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        Tensor in = random_halves(4, size.height, size.width, seed, -8.0, 8.0);
        in.at(0, 0, 0) = 6e4;  // scores whose exponentials overflow
        in.at(1, 0, 0) = 6e4;
        const auto src = upload(in);
        const auto dst = make_output(4, size.height, size.width);
        run("softmax_on_channels_program", *src, *dst, true);
        Tensor want(4, size.height, size.width);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x)
                want.at(0, y, x) = 1.0 / (1.0 + std::exp(in.at(0, y, x) - in.at(1, y, x)));
        }
        expect_texture(read_back(*dst), want, (3.0 + 2.0 * 16.0 + 4.0) * float_unit);
    }
}

TEST_F(DecodingProgramTest, SigmoidIsSteepAroundOneHalf) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        const Tensor in = random_halves(4, size.height, size.width, seed, -0.5, 1.5);
        const auto src = upload(in);
        const auto dst = make_output(4, size.height, size.width);
        run("sigmoid", *src, *dst);
        Tensor want(4, size.height, size.width);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x)
                want.at(0, y, x) = 1.0 / (1.0 + std::exp(8.0 * (0.5 - in.at(0, y, x))));
        }
        expect_texture(read_back(*dst), want, (3.0 + 2.0 * 8.0 + 8.0 + 4.0) * float_unit);
    }
}

TEST_F(DecodingProgramTest, BinaryIsOneAboveOneHalfInThreeComponents) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        Tensor in = random_halves(4, size.height, size.width, seed, 0.0, 1.0);
        in.at(0, 0, 0) = 0.5;  // not above
        if (size.width > 1) in.at(0, 0, 1) = 0.5 + half_unit(0.5);
        const auto src = upload(in);
        const auto dst = make_output(4, size.height, size.width);
        run("binary_program", *src, *dst);
        Tensor want(4, size.height, size.width);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                for (int c = 0; c < 3; ++c) want.at(c, y, x) = in.at(0, y, x) > 0.5 ? 1.0 : 0.0;
            }
        }
        expect_same_texture(read_back(*dst), want);
    }
}

TEST_F(DecodingProgramTest, DilateErodeMakesThreeLevelsOfTheWindowSum) {
    const std::vector<double> sums = {0.0,     0.9995, 1.0,  2.0,  40.0,
                                      80.4375, 80.5,   81.0, -3.0, 200.0};
    const std::vector<double> levels = {0.0, 0.0, 0.5, 0.5, 0.5, 0.5, 1.0, 1.0, 0.0, 1.0};
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        Tensor in = random_halves(4, size.height, size.width, seed, 0.0, 81.0);
        Tensor want(4, size.height, size.width);
        size_t i = 0;
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x, ++i) {
                in.at(0, y, x) = nearest_half(sums[i % sums.size()]);
                for (int c = 0; c < 3; ++c) want.at(c, y, x) = levels[i % sums.size()];
            }
        }
        const auto src = upload(in);
        const auto dst = make_output(4, size.height, size.width);
        run("dilate_erode_program", *src, *dst);
        expect_same_texture(read_back(*dst), want);
    }
}

TEST_F(DecodingProgramTest, AddHalfTextureIsTheMeanOfBothPictures) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        const Tensor before = random_halves(4, size.height, size.width, seed);
        const Tensor now = random_halves(4, size.height, size.width, seed + 1);
        const auto pre = upload(before);
        const auto cur = upload(now);
        const auto added = make_output(4, size.height, size.width);
        const auto program = use_program("add_half_texture");
        program->bindImage(0, GL_READ_ONLY, *pre);
        program->bindImage(1, GL_READ_ONLY, *cur);
        program->bindImage(2, GL_WRITE_ONLY, *added);
        dispatch(*program, size.width, size.height, 1);
        Tensor want = now;
        for (size_t i = 0; i < want.values.size(); ++i)
            want.values[i] = 0.5 * (now.values[i] + before.values[i]);
        expect_texture(read_back(*added), want);
    }
}

TEST_F(DecodingProgramTest, MasksBecomePicturesOfTheirOwn) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        const Tensor picture = random_halves(4, size.height, size.width, seed, 0.0, 1.0);
        const Tensor mask = random_halves(4, size.height, size.width, seed + 1, 0.0, 1.0);
        const auto srcImg = upload(picture);
        const auto srcMask = upload(mask);
        Tensor grey(4, size.height, size.width), red(4, size.height, size.width);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                for (int c = 0; c < 3; ++c) grey.at(c, y, x) = mask.at(0, y, x);
                red.at(0, y, x) = mask.at(0, y, x);
            }
        }
        const auto dispatch_into = [&](const std::string& name, tesk::Image& dst) {
            const auto program = use_program(name);
            program->setUnifromTexture("srcImg", 0, *srcImg);
            program->setUnifromTexture("srcMask", 1, *srcMask);
            program->bindImage(2, GL_WRITE_ONLY, dst);
            dispatch(*program, size.width, size.height, 1);
        };
        const auto halves = make_output(4, size.height, size.width);
        dispatch_into("rgba16f_merge_src_with_mask_program", *halves);
        expect_same_texture(read_back(*halves), grey);

        const auto bytes = make_image(4, size.height, size.width, GL_RGBA8);
        bytes->addReadCount();
        const std::vector<char> filled(static_cast<size_t>(4 * size.height * size.width), 77);
        bytes->update(filled.data(), 0);
        dispatch_into("rgba8_merge_src_with_mask_program", *bytes);
        const Tensor got = read_back(*bytes);
        for (size_t i = 0; i < red.values.size(); ++i) {
            // To the nearest of the 256 steps, or the next where the product is rounded first.
            EXPECT_NEAR(got.values[i], red.values[i], 0.5 / 255 + 2 * float_unit) << i;
        }
    }
}

// ---- Resampling and pooling
// ----------------------------------------------------------------------

TEST_F(DecodingProgramTest, UpsamplingRepeatsEachValueOnFourColumns) {
    for (const MapSize size : map_sizes) {
        SCOPED_TRACE(text(size));
        const Tensor in = random_halves(8, size.height, size.width, seed);
        const auto src = upload(in);
        const auto dst = make_output(8, size.height, 4 * size.width);
        const auto program = use_program("upsampling_sigo_denoise_program");
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        dispatch(*program, size.width, size.height, 2);
        Tensor want(8, size.height, 4 * size.width);
        for (int c = 0; c < 8; ++c) {
            for (int y = 0; y < size.height; ++y) {
                for (int x = 0; x < 4 * size.width; ++x) want.at(c, y, x) = in.at(c, y, x / 4);
            }
        }
        expect_same_texture(read_back(*dst), want);
    }
}

TEST_F(DecodingProgramTest, UpsamplingWritesNothingFromBesideTheSource) {
    // A wider and deeper output than the source fills: the rest stays.
    const Tensor in = random_halves(8, 3, 5, seed);
    const auto src = upload(in);
    const auto dst = make_output(12, 4, 32);
    const auto program = use_program("upsampling_sigo_denoise_program");
    program->bindImage(0, GL_READ_ONLY, *src);
    program->bindImage(1, GL_WRITE_ONLY, *dst);
    program->compute(1, 1, 3);
    Tensor want(12, 4, 32, untouched);
    for (int c = 0; c < 8; ++c) {
        for (int y = 0; y < 3; ++y) {
            for (int x = 0; x < 20; ++x) want.at(c, y, x) = in.at(c, y, x / 4);
        }
    }
    expect_same_texture(read_back(*dst), want);
}

TEST_F(DecodingProgramTest, MaxPoolingAtStrideOneSeesZeroBeyondTheLastColumnAndRow) {
    for (const MapSize size : {MapSize{1, 1}, {11, 11}, {13, 13}, {12, 30}}) {
        SCOPED_TRACE(text(size));
        const Tensor in = random_halves(12, size.height, size.width, seed);
        const auto src = upload(in);
        const auto dst = make_output(12, size.height, size.width);
        run("max_pooling_stride1_program", *src, *dst);
        Tensor want = in;
        for (int c = 0; c < 12; ++c) {
            for (int y = 0; y < size.height; ++y) {
                for (int x = 0; x < size.width; ++x) {
                    for (int k = 1; k < 4; ++k) {
                        const int wx = x + k % 2, wy = y + k / 2;
                        const bool inside = wx < size.width && wy < size.height;
                        const double neighbour = inside ? in.at(c, wy, wx) : 0.0;
                        want.at(c, y, x) = std::max(want.at(c, y, x), neighbour);
                    }
                }
            }
        }
        expect_same_texture(read_back(*dst), want);
    }
}

// ---- Detection head
// ------------------------------------------------------------------------------

TEST_F(DecodingProgramTest, RegionDecodesFiveAnchorsAndLaysThePixelsChannelsSideBySide) {
    Tensor in = random_halves(56, 11, 11, seed, -6.0, 6.0);
    in.at(5, 2, 3) = 6e4;  // a score whose exponential overflows
    const auto src = upload(in);
    const auto dst = make_output(4, 11, 154);
    const auto program = use_program("region2d_image_11x11x55_in_11x154x4_out_para_5x6x4_program");
    program->bindImage(0, GL_READ_ONLY, *src);
    program->bindImage(1, GL_WRITE_ONLY, *dst);
    program->compute(1, 1, 1);

    Tensor want(4, 11, 154);
    for (int y = 0; y < 11; ++y) {
        for (int x = 0; x < 11; ++x) {
            double v[56];
            for (int c = 0; c < 56; ++c) v[c] = in.at(c, y, x);
            for (int anchor = 0; anchor < 5; ++anchor) {
                double* values = v + 11 * anchor;
                for (const int i : {0, 1, 4}) values[i] = 1.0 / (1.0 + std::exp(-values[i]));
                const double top = *std::max_element(values + 5, values + 11);
                double sum = 0.0;
                for (int i = 5; i < 11; ++i) sum += std::exp(values[i] - top);
                for (int i = 5; i < 11; ++i) values[i] = std::exp(values[i] - top) / sum;
            }
            for (int c = 0; c < 56; ++c) want.at(c % 4, y, 14 * x + c / 4) = v[c];
        }
    }
    // Exponents within 12, a sum of six, a quotient.
    expect_texture(read_back(*dst), want, 2.0 * (3.0 + 3.0 * 12.0 + 6.0 + 3.0) * float_unit);
}

TEST_F(DecodingProgramTest, RegionWritesNothingBeyondASmallerMap) {
    const Tensor in = random_halves(56, 4, 5, seed);
    const auto src = upload(in);
    const auto dst = make_output(4, 11, 154);
    run("region2d_image_11x11x55_in_11x154x4_out_para_5x6x4_program", *src, *dst);
    const Tensor got = read_back(*dst);
    for (int y = 0; y < 11; ++y) {
        for (int x = 0; x < 154; ++x) {
            const bool inside = y < 4 && x < 5 * 14;
            EXPECT_EQ(std::isnan(got.at(2, y, x)), !inside) << y << ", " << x;
        }
    }
}

}  // namespace
