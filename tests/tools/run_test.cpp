#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/tensors.h"
#include "tools/array_files.h"
#include "tools/command.h"
#include "tools/pictures.h"

namespace {

using namespace command_test;
using testing_support::sum_error_bound;

constexpr double float_epsilon = 0x1p-24;

modelkit::ModelHeader header_of(int w, int h) {
    modelkit::ModelHeader header;
    header.base_w = static_cast<unsigned int>(w);
    header.base_h = static_cast<unsigned int>(h);
    return header;
}

void save(const modelkit::NetBuilder& net, const std::string& path) {
    const modelkit::Status saved = net.save(path);
    ASSERT_TRUE(saved.ok()) << saved.message();
}

/// A net of an input alone: its output is what the net is fed.
void save_input_net(const std::string& path, int channels, int w, int h) {
    modelkit::NetBuilder net(header_of(w, h));
    net.input(channels);
    save(net, path);
}

class Run : public testing::Test {
protected:
    Folder folder;
    std::string model = folder / "net.zqnet";
    std::string picture = folder / "in.png";
    std::string array = folder / "out.npy";
    std::string png = folder / "out.png";

    Outcome run(const std::vector<std::string>& more) {
        std::vector<std::string> words = {"run", "--model", model, "--input", picture};
        words.insert(words.end(), more.begin(), more.end());
        return run_tarno(words);
    }
};

// The net against plain loops --------------------------------------------------------------------

TEST_F(Run, AConvolutionOfAPictureIsWhatTheFormulaSays) {
    constexpr int w = 7, h = 5, in = 3, out = 2;
    // Weights and bias that a half holds exactly, in the order of the file: [out][y][x][in].
    modelkit::Weights weights;
    for (int i = 0; i < out * 9 * in; ++i) {
        weights.weights.push_back(static_cast<float>((i * 7) % 17 - 8) / 8.0f);
    }
    weights.bias = {0.25f, -0.5f};
    modelkit::NetBuilder net(header_of(w, h));
    net.conv(net.input(in), out, 3, 1, 1, ActivationType_ReLU, weights);
    save(net, model);
    const Pixels pixels = pattern(w, h, 3);
    write_file(picture, png_file(pixels));
    expect_success(run({"--mean", "10,20,30", "--norm", "1/64,1/32,1/128", "--output", array}));

    const double mean[] = {10.0, 20.0, 30.0};
    const double norm[] = {1.0 / 64, 1.0 / 32, 1.0 / 128};
    const Array result = read_array(array);
    ASSERT_EQ(result.c, out);
    ASSERT_EQ(result.h, h);
    ASSERT_EQ(result.w, w);
    for (int p = 0; p < out; ++p) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                double sum = weights.bias[static_cast<size_t>(p)];
                double magnitude = std::fabs(sum);
                for (int ky = 0; ky < 3; ++ky) {
                    for (int kx = 0; kx < 3; ++kx) {
                        const int sy = y + ky - 1, sx = x + kx - 1;
                        if (sy < 0 || sy >= h || sx < 0 || sx >= w) continue;
                        for (int q = 0; q < in; ++q) {
                            const size_t at = static_cast<size_t>(((p * 3 + ky) * 3 + kx) * in + q);
                            const double term =
                                (pixels.at(sx, sy, q) - mean[q]) * norm[q] * weights.weights[at];
                            sum += term;
                            magnitude += std::fabs(term);
                        }
                    }
                }
                // The input is exact: powers of two scale whole numbers.
                EXPECT_NEAR(result.at(p, y, x), std::max(sum, 0.0),
                            sum_error_bound(9 * in + 1, magnitude))
                    << p << " " << y << " " << x;
            }
        }
    }
}

// Pictures in ------------------------------------------------------------------------------------

TEST_F(Run, PixelsBecomePlanesFrom0To1) {
    save_input_net(model, 3, 7, 5);
    const Pixels pixels = pattern(7, 5, 3);
    write_file(picture, png_file(pixels));
    expect_success(run({"--output", array}));
    const Array result = read_array(array);
    ASSERT_EQ(result.c, 3);
    for (int q = 0; q < 3; ++q) {
        for (int y = 0; y < 5; ++y) {
            for (int x = 0; x < 7; ++x) {
                const double expected = pixels.at(x, y, q) / 255.0;
                EXPECT_NEAR(result.at(q, y, x), expected, 2 * float_epsilon * expected);
            }
        }
    }
}

// 35 elements a channel: the last three are behind the last whole vector.
TEST_F(Run, MeanAndNormReachEveryElementOfAnOddPlane) {
    save_input_net(model, 3, 7, 5);
    const Pixels pixels = pattern(7, 5, 3);
    write_file(picture, png_file(pixels));
    expect_success(run({"--output", array, "--mean", "1,2,4", "--norm", "0.5"}));
    const Array result = read_array(array);
    const float mean[] = {1, 2, 4};
    for (int q = 0; q < 3; ++q) {
        for (int i = 0; i < 35; ++i) {
            EXPECT_EQ(result.values[static_cast<size_t>(q * 35 + i)],
                      (static_cast<float>(pixels.at(i % 7, i / 7, q)) - mean[q]) * 0.5f);
        }
    }
}

struct Conversion {
    const char* name;
    int channels_in_file;
    const char* pixel_type;
    int channels;
    std::vector<int>
        from;  ///< for each channel of the net the one of the file; -1 luminance, -2 255
};

class Converts : public Run, public testing::WithParamInterface<Conversion> {};

TEST_P(Converts, ToTheOrderThatTheNetWants) {
    const Conversion& each = GetParam();
    save_input_net(model, each.channels, 6, 4);
    const Pixels pixels = pattern(6, 4, each.channels_in_file);
    write_file(picture, png_file(pixels));
    std::vector<std::string> words = {"--output", array, "--norm", "1"};
    if (each.pixel_type != nullptr) {
        words.push_back("--pixel-type");
        words.push_back(each.pixel_type);
    }
    expect_success(run(words));
    const Array result = read_array(array);
    ASSERT_EQ(result.c, each.channels);
    for (int q = 0; q < each.channels; ++q) {
        const int from = each.from[static_cast<size_t>(q)];
        for (int i = 0; i < 24; ++i) {
            const auto byte = [&](int k) { return static_cast<int>(pixels.at(i % 6, i / 6, k)); };
            const int expected = from == -2   ? 255
                                 : from == -1 ? (77 * byte(0) + 150 * byte(1) + 29 * byte(2)) / 256
                                              : byte(from);
            EXPECT_EQ(result.values[static_cast<size_t>(q * 24 + i)], expected) << q << " " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Run, Converts,
                         testing::Values(Conversion{"RgbByChannels", 3, nullptr, 3, {0, 1, 2}},
                                         Conversion{"RgbToBgr", 3, "bgr", 3, {2, 1, 0}},
                                         Conversion{"RgbToGray", 3, "gray", 1, {-1}},
                                         Conversion{"RgbToRgba", 3, "rgba", 4, {0, 1, 2, -2}},
                                         Conversion{"RgbaByChannels", 4, nullptr, 4, {0, 1, 2, 3}},
                                         Conversion{"RgbaToRgb", 4, "rgb", 3, {0, 1, 2}},
                                         Conversion{"RgbaToBgr", 4, "bgr", 3, {2, 1, 0}},
                                         Conversion{"RgbaToGray", 4, nullptr, 1, {-1}},
                                         Conversion{"GrayByChannels", 1, nullptr, 1, {0}},
                                         Conversion{"GrayToRgb", 1, "rgb", 3, {0, 0, 0}},
                                         Conversion{"GrayToBgr", 1, "bgr", 3, {0, 0, 0}},
                                         Conversion{"GrayToRgba", 1, "rgba", 4, {0, 0, 0, -2}},
                                         Conversion{"GrayWithAlphaToRgb", 2, "rgb", 3, {0, 0, 0}},
                                         Conversion{"GrayWithAlphaToGray", 2, "grey", 1, {0}}),
                         [](const testing::TestParamInfo<Conversion>& info) {
                             return info.param.name;
                         });

/// Between pixel centres, the border repeated.
double bilinear(const Pixels& pixels, int k, double x, double y) {
    const auto inside = [](double v, int size) { return std::min(std::max(v, 0.0), size - 1.0); };
    const double sx = inside(x, pixels.w), sy = inside(y, pixels.h);
    const int x0 = static_cast<int>(sx), y0 = static_cast<int>(sy);
    const int x1 = std::min(x0 + 1, pixels.w - 1), y1 = std::min(y0 + 1, pixels.h - 1);
    const double fx = sx - x0, fy = sy - y0;
    return (pixels.at(x0, y0, k) * (1 - fx) + pixels.at(x1, y0, k) * fx) * (1 - fy) +
           (pixels.at(x0, y1, k) * (1 - fx) + pixels.at(x1, y1, k) * fx) * fy;
}

TEST_F(Run, APictureIsResizedToTheInput) {
    save_input_net(model, 3, 10, 6);
    const Pixels pixels = pattern(20, 18, 3);
    write_file(picture, png_file(pixels));
    expect_success(run({"--output", array, "--norm", "1"}));
    const Array result = read_array(array);
    ASSERT_EQ(result.h, 6);
    ASSERT_EQ(result.w, 10);
    for (int q = 0; q < 3; ++q) {
        for (int y = 0; y < 6; ++y) {
            for (int x = 0; x < 10; ++x) {
                // Integer weights of 13 bits and two cuts downwards: less than one and a half
                // steps.
                EXPECT_NEAR(result.at(q, y, x),
                            bilinear(pixels, q, (x + 0.5) * 2 - 0.5, (y + 0.5) * 3 - 0.5), 1.5);
            }
        }
    }
}

TEST_F(Run, SizeChangesTheInput) {
    save_input_net(model, 1, 10, 6);
    write_file(picture, png_file(plain(3, 3, {77})));
    expect_success(run({"--output", array, "--norm", "1", "--size", "4x2"}));
    const Array result = read_array(array);
    EXPECT_EQ(result.h, 2);
    EXPECT_EQ(result.w, 4);
    for (const float value : result.values)
        EXPECT_NEAR(value, 77.0f, 1.0f);
}

TEST_F(Run, AJpegIsRead) {
    save_input_net(model, 3, 16, 16);
    picture = folder / "in.jpg";
    write_file(picture, jpeg_file(plain(16, 16, {200, 100, 50})));
    expect_success(run({"--output", array, "--norm", "1"}));
    const Array result = read_array(array);
    const float colour[] = {200, 100, 50};
    for (int q = 0; q < 3; ++q) {
        for (int i = 0; i < 256; ++i) {
            EXPECT_NEAR(result.values[static_cast<size_t>(q * 256 + i)], colour[q], 4.0f);
        }
    }
}

// Arrays in --------------------------------------------------------------------------------------

TEST_F(Run, AnArrayIsTakenAsItIs) {
    save_input_net(model, 2, 10, 6);
    const std::vector<float> values = {-1.5f, 0.25f, 3.0f, 1e30f, 0.0f,  -0.0f,
                                       7.0f,  8.0f,  9.0f, 10.0f, 11.0f, 12.0f};
    picture = folder / "in.npy";
    write_file(picture, npy_file("<f4", "(2, 2, 3)", raw(values)));
    expect_success(run({"--output", array}));
    const Array result = read_array(array);
    EXPECT_EQ(result.c, 2);
    EXPECT_EQ(result.h, 2);
    EXPECT_EQ(result.w, 3);
    EXPECT_EQ(result.values, values);
}

TEST_F(Run, DoublesAreRoundedAndBytesKept) {
    save_input_net(model, 1, 4, 4);
    picture = folder / "in.npy";
    write_file(picture, npy_file("<f8", "(2, 2)", raw<double>({0.1, 1e300, -2.5, 0x1p-150})));
    expect_success(run({"--output", array}));
    EXPECT_EQ(read_array(array).values, (std::vector<float>{0.1f, INFINITY, -2.5f, 0.0f}));
    write_file(picture, npy_file("|u1", "(1, 2, 2)", raw<unsigned char>({0, 1, 128, 255})));
    expect_success(run({"--output", array}));
    EXPECT_EQ(read_array(array).values, (std::vector<float>{0, 1, 128, 255}));
}

TEST_F(Run, MeanAndNormAreAppliedToAnArrayWhenGiven) {
    save_input_net(model, 1, 4, 4);
    picture = folder / "in.npy";
    write_file(picture, npy_file("<f4", "(1, 1, 5)", raw<float>({1, 2, 3, 4, 5})));
    expect_success(run({"--output", array, "--mean", "1", "--norm", "2"}));
    EXPECT_EQ(read_array(array).values, (std::vector<float>{0, 2, 4, 6, 8}));
}

/// One step of a cell after the other, in double.
class ReferenceLstm {
public:
    ReferenceLstm(const ZQLayerInfo_LSTM& record)
        : record(record), hidden(record.hidden_size, 0.0), cell(record.hidden_size, 0.0) {}

    std::vector<double> step(const float* x) {
        const size_t units = record.hidden_size, inputs = record.input_size;
        std::vector<double> gates(4 * units);
        for (size_t row = 0; row < 4 * units; ++row) {
            double sum = static_cast<double>(record.b_ih[0][row]) + record.b_hh[0][row];
            for (size_t k = 0; k < inputs; ++k)
                sum += record.w_ih[0][row * inputs + k] * double{x[k]};
            for (size_t k = 0; k < units; ++k)
                sum += record.w_hh[0][row * units + k] * hidden[k];
            gates[row] = sum;
        }
        const auto logistic = [](double v) { return 1.0 / (1.0 + std::exp(-v)); };
        for (size_t j = 0; j < units; ++j) {
            cell[j] = logistic(gates[j]) * std::tanh(gates[2 * units + j]) +
                      logistic(gates[units + j]) * cell[j];
            hidden[j] = logistic(gates[3 * units + j]) * std::tanh(cell[j]);
        }
        return hidden;
    }

private:
    const ZQLayerInfo_LSTM& record;
    std::vector<double> hidden;
    std::vector<double> cell;
};

TEST_F(Run, RowsOfAnArrayAreTheTimeStepsOfAnLstm) {
    constexpr int steps = 4, features = 3, hidden = 5;
    modelkit::NetBuilder net;
    // The model was made with another number of time steps.
    const int lstm = net.lstm(net.tensor_input({10, features}), features, hidden);
    save(net, model);
    std::vector<float> values;
    for (int i = 0; i < steps * features; ++i) {
        values.push_back(std::sin(static_cast<float>(i)));
    }
    picture = folder / "in.npy";
    write_file(picture, npy_file("<f4", "(4, 3)", raw(values)));
    const auto& record = static_cast<const ZQLayerInfo_LSTM&>(*net.record(lstm));

    for (const int repeat : {1, 3}) {
        expect_success(run({"--output", array, "--repeat", std::to_string(repeat)}));
        const Array result = read_array(array);
        ASSERT_EQ(result.c, steps);
        ASSERT_EQ(result.h, 1);
        ASSERT_EQ(result.w, hidden);
        ReferenceLstm reference(record);
        for (int r = 0; r < repeat; ++r) {
            for (int t = 0; t < steps; ++t) {
                const std::vector<double> expected = reference.step(values.data() + t * features);
                for (int j = 0; r + 1 == repeat && j < hidden; ++j) {
                    // Sums of ten terms below 1, and functions of slope 1 at the most, over a few
                    // steps.
                    EXPECT_NEAR(result.at(t, 0, j), expected[static_cast<size_t>(j)],
                                100 * float_epsilon);
                }
            }
        }
    }
}

TEST_F(Run, SeveralInputsGoInTheOrderOfTheirIndices) {
    modelkit::NetBuilder net(header_of(3, 2));
    const int first = net.input(1);
    const int second = net.input(1);
    net.concat({first, second});
    save(net, model);
    write_file(folder / "a.npy", npy_file("<f4", "(2, 3)", raw<float>({1, 2, 3, 4, 5, 6})));
    write_file(folder / "b.npy", npy_file("<f4", "(2, 3)", raw<float>({7, 8, 9, 10, 11, 12})));
    picture = folder / "a.npy";
    // The concatenation of one-channel maps is along their rows.
    EXPECT_EQ(run({"--input", folder / "b.npy", "--output", array}).status, 1);
    modelkit::NetBuilder wide(header_of(3, 2));
    const int left = wide.input(1);
    const int right = wide.input(1);
    wide.eltwise({left, right});
    save(wide, model);
    expect_success(run({"--input", folder / "b.npy", "--output", array}));
    EXPECT_EQ(read_array(array).values, (std::vector<float>{8, 10, 12, 14, 16, 18}));
    expect_success(run({"--input", folder / "b.npy", "--output", array, "--layer", "1"}));
    EXPECT_EQ(read_array(array).values, (std::vector<float>{7, 8, 9, 10, 11, 12}));
}

// Files out --------------------------------------------------------------------------------------

TEST_F(Run, APngOfOneChannelIsGreyAndClamped) {
    save_input_net(model, 1, 4, 4);
    picture = folder / "in.npy";
    write_file(picture, npy_file("<f4", "(1, 2, 4)",
                                 raw<float>({0.0f, 1.0f, 0.5f, -3.0f, 7.0f, NAN, 0.2f, 0.1f})));
    const Outcome outcome = run({"--output", png});
    expect_success(outcome);
    const Pixels pixels = read_png(png);
    EXPECT_EQ(pixels.w, 4);
    EXPECT_EQ(pixels.h, 2);
    EXPECT_EQ(pixels.channels, 1);
    EXPECT_EQ(pixels.data, (std::vector<unsigned char>{0, 255, 128, 0, 255, 0, 51, 26}));
    EXPECT_EQ(outcome.out, "wrote " + png + ": 1x2x4, -3.0000 to 7.0000, 1 not finite\n");
}

TEST_F(Run, APngOfThreeChannelsIsThePictureItself) {
    save_input_net(model, 3, 7, 5);
    const Pixels pixels = pattern(7, 5, 3);
    write_file(picture, png_file(pixels));
    expect_success(run({"--output", png}));
    const Pixels result = read_png(png);
    EXPECT_EQ(result.channels, 3);
    EXPECT_EQ(result.data, pixels.data);
}

TEST_F(Run, ResizeOutputBringsTheResultToTheSizeOfThePicture) {
    save_input_net(model, 1, 4, 2);
    Pixels small{4, 2, 1, {10, 20, 30, 40, 110, 120, 130, 140}};
    // Twice the size: the input net gets back about what it was made of.
    Pixels large{8, 4, 1, {}};
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 8; ++x)
            large.data.push_back(small.at(x / 2, y / 2, 0));
    }
    write_file(picture, png_file(large));
    expect_success(run({"--output", array, "--norm", "1"}));
    const Array input = read_array(array);
    Pixels fed{4, 2, 1, {}};
    for (const float value : input.values) {
        fed.data.push_back(static_cast<unsigned char>(value));
    }
    expect_success(run({"--output", array, "--norm", "1", "--resize-output"}));
    const Array result = read_array(array);
    ASSERT_EQ(result.h, 4);
    ASSERT_EQ(result.w, 8);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 8; ++x) {
            EXPECT_NEAR(result.at(0, y, x),
                        bilinear(fed, 0, (x + 0.5) / 2 - 0.5, (y + 0.5) / 2 - 0.5),
                        255 * 8 * float_epsilon);
        }
    }
}

/// Grey in, the same out: the mask is the picture's own brightness.
TEST_F(Run, ACompositeMixesPictureAndColourByTheMask) {
    save_input_net(model, 1, 3, 1);
    const Pixels pixels{3, 1, 3, {0, 0, 0, 255, 255, 255, 100, 100, 100}};
    write_file(picture, png_file(pixels));
    const std::string composite = folder / "c.png";
    expect_success(run({"--composite", composite, "--background", "10,200,30"}));
    const Pixels result = read_png(composite);
    ASSERT_EQ(result.channels, 3);
    ASSERT_EQ(result.w, 3);
    const int background[] = {10, 200, 30};
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(result.at(0, 0, k), background[k]);
        EXPECT_EQ(result.at(1, 0, k), 255);
        const double mask = 100.0 / 255.0;
        EXPECT_NEAR(result.at(2, 0, k), 100 * mask + background[k] * (1 - mask), 0.51);
    }
    expect_success(run({"--composite", composite}));
    EXPECT_EQ(read_png(composite).at(0, 0, 1), 255);
}

TEST_F(Run, ABackgroundPictureIsStretched) {
    save_input_net(model, 1, 4, 4);
    write_file(picture, png_file(plain(8, 6, {0, 0, 0})));
    write_file(folder / "sky.png", png_file(plain(3, 2, {20, 120, 220})));
    const std::string composite = folder / "c.png";
    expect_success(run({"--composite", composite, "--background", folder / "sky.png"}));
    const Pixels result = read_png(composite);
    ASSERT_EQ(result.w, 8);
    ASSERT_EQ(result.h, 6);
    for (int i = 0; i < 48; ++i) {
        EXPECT_NEAR(result.at(i % 8, i / 8, 0), 20, 1);
        EXPECT_NEAR(result.at(i % 8, i / 8, 1), 120, 1);
        EXPECT_NEAR(result.at(i % 8, i / 8, 2), 220, 1);
    }
}

TEST_F(Run, AllLayersWritesOneArrayForEachStep) {
    modelkit::NetBuilder net(header_of(6, 4));
    modelkit::Weights weights;
    weights.weights = {1, 0, 0, 0, -1, 0};
    weights.bias = {0, 0};
    const int image = net.input(3);
    net.activation(net.conv(image, 2, 1, 1, 0, ActivationType_ReLU, weights), ActivationType_Linear,
                   2.0, 1.0);
    save(net, model);
    const Pixels pixels = pattern(6, 4, 3);
    write_file(picture, png_file(pixels));
    const std::string blobs = folder / "blobs";
    expect_success(run({"--all-layers", blobs, "--norm", "1", "--output", array, "--layer", "1"}));

    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(blobs)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"000_0_Input.npy", "001_1_Convolution1x1s1x1.npy",
                                               "002_1_ReLU.npy", "003_2_Activation-Linear.npy"}));
    // The ReLU works in place; what the convolution made is there all the same.
    const Array conv = read_array(blobs + "/001_1_Convolution1x1s1x1.npy");
    const Array relu = read_array(blobs + "/002_1_ReLU.npy");
    const Array linear = read_array(blobs + "/003_2_Activation-Linear.npy");
    for (int i = 0; i < 24; ++i) {
        const float red = pixels.at(i % 6, i / 6, 0), green = pixels.at(i % 6, i / 6, 1);
        const size_t at = static_cast<size_t>(i);
        EXPECT_EQ(conv.values[at], red);
        EXPECT_EQ(conv.values[24 + at], -green);
        EXPECT_EQ(relu.values[at], red);
        EXPECT_EQ(relu.values[24 + at], 0.0f);
        EXPECT_EQ(linear.values[at], red * 2 + 1);
        EXPECT_EQ(linear.values[24 + at], 1.0f);
    }
    EXPECT_EQ(read_array(array).values, relu.values);
    // Once more into the folder that is there now.
    expect_success(run({"--all-layers", blobs + "/", "--norm", "1"}));
    EXPECT_EQ(read_array(blobs + "/002_1_ReLU.npy").values, relu.values);
    EXPECT_EQ(folder.names(),
              (std::vector<std::string>{"blobs", "in.png", "net.zqnet", "out.npy"}));
}

TEST_F(Run, AnOutputThatIsAnInputIsRefusedAndTheInputStays) {
    modelkit::NetBuilder net(header_of(4, 2));
    net.activation(net.input(1), ActivationType_ReLU);
    save(net, model);
    write_file(picture, png_file(plain(4, 2, {51})));
    std::filesystem::create_symlink(picture, folder / "link.png");
    std::filesystem::copy(model, folder / "model.npy");
    const std::string blobs = folder / "blobs";
    expect_success(run({"--all-layers", blobs}));
    const std::string blob = blobs + "/000_0_Input.npy";
    const std::string pixels = read_file(picture);
    const std::string values = read_file(blob);
    const std::string file = read_file(model);

    const std::string wanted = "expected a place for the output apart from the inputs";
    const std::vector<std::string> words = {"run", "--model", folder / "model.npy", "--input"};
    const auto expect_refused = [&](std::vector<std::string> more, const std::string& named) {
        SCOPED_TRACE(named);
        more.insert(more.begin(), words.begin(), words.end());
        expect_refusal(run_tarno(more), 1, {named, wanted});
        EXPECT_TRUE(read_file(picture) == pixels);
        EXPECT_TRUE(read_file(blob) == values);
        EXPECT_TRUE(read_file(folder / "model.npy") == file);
    };
    expect_refused({picture, "--output", picture}, "in.png");
    expect_refused({picture, "--output", folder / "link.png"}, "link.png");
    expect_refused({picture, "--output", folder / "model.npy"}, "model.npy");
    expect_refused({picture, "--composite", folder / "blobs/../in.png"}, "blobs/../in.png");
    expect_refused({blob, "--output", png, "--all-layers", blobs}, "000_0_Input.npy");
    EXPECT_EQ(folder.names(),
              (std::vector<std::string>{"blobs", "in.png", "link.png", "model.npy", "net.zqnet"}));
}

TEST_F(Run, NothingIsWrittenWithoutRoomForTheReport) {
    // Only where the system has such a device.
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full here";
    save_input_net(model, 1, 4, 2);
    write_file(picture, png_file(plain(4, 2, {51})));
    const std::string command = std::string("'") + TARNO_COMMAND + "' run --model '" + model +
                                "' --input '" + picture + "' --output '" + png +
                                "' > /dev/full 2> /dev/null";
    const int result = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(result), 1);
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"in.png", "net.zqnet"}));
}

TEST_F(Run, AnOutputReplacesTheFileBehindALink) {
    save_input_net(model, 1, 4, 2);
    write_file(picture, png_file(plain(4, 2, {51})));
    const std::string target = folder / "target.png";
    write_file(target, std::string("old"));
    std::filesystem::create_symlink(target, png);
    expect_success(run({"--output", png}));
    EXPECT_TRUE(std::filesystem::is_symlink(png));
    EXPECT_EQ(read_png(target).at(0, 0, 0), 51);
}

}  // namespace
