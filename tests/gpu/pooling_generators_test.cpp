// Pooling on the GPU, each generator by itself.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pooling.h"
#include "support/generators.h"
#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;
using tesk::Tricks_Pooling_Avg;
using tesk::Tricks_Pooling_Max;

struct Case {
    int kernel_w = 2;
    int kernel_h = 2;
    int channels = 4;
    int width = 17;
    int height = 15;
    int pad_x = 0;
    int pad_y = 0;
    int stride_x = 2;
    int stride_y = 2;

    int out_width() const { return (width + 2 * pad_x - kernel_w) / stride_x + 1; }
    int out_height() const { return (height + 2 * pad_y - kernel_h) / stride_y + 1; }
};

void fill(ZQLayerInfo_Pooling& record, const Case& c) {
    record.id = 4;
    set_shapes(record, {c.channels, c.height, c.width},
               {c.channels, c.out_height(), c.out_width()});
    record.kernel_w = static_cast<unsigned short>(c.kernel_w);
    record.kernel_h = static_cast<unsigned short>(c.kernel_h);
    record.pad_w = static_cast<unsigned short>(c.pad_x);
    record.pad_h = static_cast<unsigned short>(c.pad_y);
    record.stride_w = static_cast<unsigned short>(c.stride_x);
    record.stride_h = static_cast<unsigned short>(c.stride_y);
}

class Pooling : public GpuTest {
protected:
    template <typename Generator>
    void expect_right(const Case& c, double low = -4.0, double high = 4.0) {
        constexpr bool maximum = std::is_same_v<Generator, Tricks_Pooling_Max>;
        SCOPED_TRACE((maximum ? "max " : "average ") + std::to_string(c.kernel_w) + "x" +
                     std::to_string(c.kernel_h) + ", channels " + std::to_string(c.channels) +
                     ", size " + std::to_string(c.width) + "x" + std::to_string(c.height) +
                     ", padding " + std::to_string(c.pad_x) + " " + std::to_string(c.pad_y) +
                     ", strides " + std::to_string(c.stride_x) + " " + std::to_string(c.stride_y));
        ZQLayerInfo_Pooling record;
        fill(record, c);
        Generator generator(&manager);
        generator.setup(&record);
        const Tensor input = random_halves(c.channels, c.height, c.width, 17, low, high);
        Reference want(c.channels, c.out_height(), c.out_width());
        const int taps = c.kernel_w * c.kernel_h;
        for (int channel = 0; channel < c.channels; ++channel) {
            for (int y = 0; y < c.out_height(); ++y) {
                for (int x = 0; x < c.out_width(); ++x) {
                    double best = -HUGE_VAL, sum = 0.0, magnitude = 0.0;
                    for (int ky = 0; ky < c.kernel_h; ++ky) {
                        for (int kx = 0; kx < c.kernel_w; ++kx) {
                            const double value =
                                padded(input, channel, y * c.stride_y - c.pad_y + ky,
                                       x * c.stride_x - c.pad_x + kx);
                            best = std::max(best, value);
                            sum += value;
                            magnitude += std::fabs(value);
                        }
                    }
                    want.values.at(channel, y, x) = maximum ? best : sum / taps;
                    // A division may be off by 2.5 units of the last place.
                    want.errors.at(channel, y, x) =
                        maximum ? 0.0
                                : (sum_error(taps, magnitude) + std::ldexp(2.5 * magnitude, -23)) /
                                      taps;
                }
            }
        }
        const auto source = upload(input);
        const auto target = make_output(c.channels, c.out_height(), c.out_width());
        generator.compute(source.get(), target.get());
        expect_matches(read_back(*target), want);
    }
};

const std::pair<int, int> max_windows[] = {{2, 2}, {3, 3}, {1, 4}, {2, 4}};
const std::pair<int, int> average_windows[] = {{2, 2}, {3, 3}, {4, 4}, {7, 7}, {8, 8}};

TEST_F(Pooling, EveryWindowWithAndWithoutPadding) {
    for (const int stride : {1, 2}) {
        for (const int pad : {0, 1}) {
            manager.release();  // names tell no padding
            Case c;
            c.channels = 5 - pad;
            c.pad_x = pad;
            c.pad_y = 1 - pad;
            c.stride_x = stride;
            c.stride_y = 3 - stride;
            for (const auto& window : max_windows) {
                c.kernel_w = window.first;
                c.kernel_h = window.second;
                expect_right<Tricks_Pooling_Max>(c);
            }
            for (const auto& window : average_windows) {
                c.kernel_w = window.first;
                c.kernel_h = window.second;
                expect_right<Tricks_Pooling_Avg>(c);
            }
        }
    }
}

TEST_F(Pooling, AllChannelCounts) {
    for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
        Case c;
        c.channels = channels;
        expect_right<Tricks_Pooling_Max>(c);
        expect_right<Tricks_Pooling_Avg>(c);
    }
}

TEST_F(Pooling, OneByOneOutputs) {
    for (const auto& window : average_windows) {
        Case c;
        c.channels = 9;
        c.kernel_w = c.width = window.first;
        c.kernel_h = c.height = window.second;
        expect_right<Tricks_Pooling_Avg>(c);
    }
    Case c;
    c.kernel_w = c.width = 1;
    c.kernel_h = c.height = 4;
    expect_right<Tricks_Pooling_Max>(c);
}

TEST_F(Pooling, TexelsBeyondTheBorderAreZerosThatTakePart) {
    // All values are negative: the maximum at the border is 0, and the average divides by 9.
    Case c;
    c.kernel_w = c.kernel_h = 3;
    c.pad_x = c.pad_y = 1;
    c.stride_x = c.stride_y = 1;
    expect_right<Tricks_Pooling_Max>(c, -4.0, -1.0);
    expect_right<Tricks_Pooling_Avg>(c, -4.0, -1.0);
}

TEST_F(Pooling, AWindowOfFiveByFiveIsLoggedAndDoesNotCompile) {
    Case c;
    c.kernel_w = c.kernel_h = 5;
    ZQLayerInfo_Pooling record;
    fill(record, c);
    const auto source = upload(random_halves(4, c.height, c.width, 1));
    const auto target = make_output(4, c.out_height(), c.out_width());
    const auto expect_unsupported = [&](tesk::Tricks_Pooling& generator, const std::string& line) {
        LogRecorder log;
        generator.setup(&record);
        size_t lines = 0, errors = 0;
        for (const LogRecorder::Line& entry : log.lines) {
            lines += entry.text == line && entry.level == Tarno::LogLevel::Verbose ? 1 : 0;
            errors += entry.level == Tarno::LogLevel::Error ? 1 : 0;
        }
        EXPECT_EQ(lines, 1u) << line;
        EXPECT_GT(errors, 0u);
        generator.compute(source.get(), target.get());
        EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
    };
    Tricks_Pooling_Max maximum(&manager);
    expect_unsupported(maximum, "max pooling kernel_5_5 not support yet");
    Tricks_Pooling_Avg average(&manager);
    expect_unsupported(average, "avg pooling kernel_5_5 not support yet");

    // Each class has windows that the other lacks.
    record.kernel_w = record.kernel_h = 4;
    Tricks_Pooling_Max four(&manager);
    expect_unsupported(four, "max pooling kernel_4_4 not support yet");
    record.kernel_w = 2;
    Tricks_Pooling_Avg tall(&manager);
    expect_unsupported(tall, "avg pooling kernel_2_4 not support yet");
}

TEST_F(Pooling, LayersThatDifferInPaddingAloneShareTheProgramOfTheFirst) {
    Case c;
    ZQLayerInfo_Pooling record;
    fill(record, c);
    Tricks_Pooling_Max first(&manager), second(&manager);
    first.setup(&record);
    record.pad_w = record.pad_h = 1;
    second.setup(&record);
    EXPECT_EQ(manager.programCount(), 1);
}

TEST_F(Pooling, ARoundedSizeCoversTheLastColumn) {
    // 16.9 pixels: image and dispatch have 17.
    manager.netWidth = 90;
    Case c;
    ZQLayerInfo_Pooling record;
    fill(record, c);
    record.out_shape->scale_x = half_pattern(nearest_half(16.9 / 90));
    Tricks_Pooling_Max generator(&manager);
    generator.setup(&record);
    const auto source = upload(random_halves(4, c.height, 34, 1));
    const auto target = make_output(4, c.out_height(), 17);
    generator.compute(source.get(), target.get());
    EXPECT_FALSE(std::isnan(read_back(*target).at(0, 0, 16)));
}

TEST_F(Pooling, ARecordOfAnotherKindIsRefused) {
    ZQLayerInfo_Region record;
    record.id = 1;
    LogRecorder log;
    Tricks_Pooling_Max generator(&manager);
    generator.setup(&record);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "layer 1 (Region): expected a record of Pooling, found Region");
    EXPECT_EQ(manager.programCount(), 0);
}

struct PoolingTexts : ::testing::Test {
    tesk::ComputeProgramManager manager{0, "test"};

    static tesk::TricksParams params_of(int channels, int kernel_w, int kernel_h) {
        tesk::TricksParams params;
        params.localSizeX = params.localSizeY = 8;
        params.localSizeZ = 1;
        params.inChannels = params.outChannels = channels;
        params.kernelWidth = kernel_w;
        params.kernelHeight = kernel_h;
        params.strideX = 2;
        params.strideY = 3;
        params.padX = 1;
        params.padY = 0;
        return params;
    }
};

TEST_F(PoolingTexts, NamesHoldTheWindowChannelsAndStrides) {
    Tricks_Pooling_Max maximum(&manager);
    tesk::TricksParams params = params_of(4, 2, 4);
    EXPECT_EQ(maximum.programName(params, "Max", 8, 8, 1),
              "Max_pooling_kernel_2_4_4_In_4_Out_s2_3_localsize_8x8x1_program");
    params = params_of(5, 3, 3);
    EXPECT_EQ(maximum.programName(params, "Avg", 8, 8, 1),
              "Avg_pooling_kernel_3_3_muti_In_muti_Out_s2_3_localsize_8x8x1_program");
}

TEST_F(PoolingTexts, MaximumStartsFromTheMiddleTap) {
    Tricks_Pooling_Max maximum(&manager);
    tesk::TricksParams params = params_of(4, 2, 4);
    const std::string source = maximum.generateSource(params);
    for (const char* const piece :
         {"uniform lowp sampler2D src;",
          "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;", "void main(){ ",
          "ivec2 out_pos = ivec2(gl_GlobalInvocationID.xy);",
          "ivec2 in_pos = ivec2(out_pos.x * 2 + 0, out_pos.y * 3 + 2);",
          "vec4 out_value = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));",
          "out_value = max(out_value, texelFetchOffset(src, in_pos, 0, ivec2(-1, 0)));",
          "out_value = max(out_value, texelFetchOffset(src, in_pos, 0, ivec2(-1, -2)));",
          "out_value = max(out_value, texelFetchOffset(src, in_pos, 0, ivec2(0, 1)));",
          "imageStore(dst, out_pos, out_value);"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_EQ(occurrences(source, "texelFetchOffset"), 8u);
}

TEST_F(PoolingTexts, AverageDividesByTheWholeWindow) {
    Tricks_Pooling_Avg average(&manager);
    for (const auto& window : average_windows) {
        tesk::TricksParams params = params_of(5, window.first, window.second);
        const std::string source = average.generateSource(params);
        const int taps = window.first * window.second;
        EXPECT_EQ(occurrences(source, "texelFetchOffset"), static_cast<size_t>(taps));
        EXPECT_TRUE(contains(source, "out_value /= " + std::to_string(taps) + ".0;"));
        EXPECT_TRUE(contains(source, "uniform lowp sampler2DArray src;"));
        EXPECT_TRUE(contains(source, "image2DArray dst;"));
        EXPECT_TRUE(contains(source, "ivec3 in_pos = ivec3(out_pos.x * 2 + "));
    }
}

TEST_F(PoolingTexts, PrintNamesTheLayer) {
    LogRecorder log;
    Tricks_Pooling_Max(&manager).print();
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "Pooling layer");
}

}  // namespace
