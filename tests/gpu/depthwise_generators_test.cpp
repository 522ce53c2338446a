// Depthwise and grouped convolutions on the GPU, each generator by itself.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3_4pointsout.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_5x5.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_group_conv2d_3x3_basic.h"
#include "support/generators.h"
#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;
using Plain3x3 = tesk::Tricks_Depthwise_Conv2d_3x3;
using Plain5x5 = tesk::Tricks_Depthwise_Conv2d_5x5;
using FourPoints = tesk::Tricks_Depthwise_conv2d_3x3_4PointsOut;
using FourPointsHalf = tesk::Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2;
using Group = tesk::Tricks_Group_Conv2d_3x3_Basic;

struct Case {
    int kernel = 3;
    int channels = 4;
    int width = 11;
    int height = 9;
    int pad_x = 1;
    int pad_y = 1;
    int stride_x = 1;
    int stride_y = 1;
    int bias = 1;
    int activation = 0;

    int out_width() const { return (width + 2 * pad_x - kernel) / stride_x + 1; }
    int out_height() const { return (height + 2 * pad_y - kernel) / stride_y + 1; }
};

std::string text_of(const Case& c) {
    return "kernel " + std::to_string(c.kernel) + ", channels " + std::to_string(c.channels) +
           ", size " + std::to_string(c.width) + "x" + std::to_string(c.height) + ", padding " +
           std::to_string(c.pad_x) + " " + std::to_string(c.pad_y) + ", strides " +
           std::to_string(c.stride_x) + " " + std::to_string(c.stride_y) + ", bias " +
           std::to_string(c.bias) + ", activation " + std::to_string(c.activation);
}

/// A depthwise layer with its numbers, in plain order: weights[tap][channel].
struct DepthwiseLayer {
    ZQLayerInfo_DepthWiseConv2D record;
    std::vector<double> weights;
    std::vector<double> bias;

    explicit DepthwiseLayer(const Case& c, unsigned int seed = 7) {
        const auto channels = static_cast<size_t>(c.channels);
        weights = random_half_list(static_cast<size_t>(c.kernel * c.kernel) * channels, seed);
        bias = random_half_list(channels, seed + 1);
        record.id = 5;
        set_shapes(record, {c.channels, c.height, c.width},
                   {c.channels, c.out_height(), c.out_width()});
        record.depth_multiplier = 1;
        record.kernel_w = record.kernel_h = static_cast<unsigned short>(c.kernel);
        record.pad_w = static_cast<unsigned short>(c.pad_x);
        record.pad_h = static_cast<unsigned short>(c.pad_y);
        record.stride_w = static_cast<unsigned short>(c.stride_x);
        record.stride_h = static_cast<unsigned short>(c.stride_y);
        record.dilation_w = record.dilation_h = 1;
        record.has_bias = static_cast<unsigned short>(c.bias);
        record.activation = static_cast<unsigned short>(c.activation);
        EXPECT_TRUE(modelkit::assign_weights(record, half_patterns(weights)));
        EXPECT_TRUE(modelkit::assign_bias(record, half_patterns(bias)));
    }
};

Reference depthwise_reference(const Case& c, const Tensor& input, const DepthwiseLayer& layer) {
    Reference result(c.channels, c.out_height(), c.out_width());
    for (int channel = 0; channel < c.channels; ++channel) {
        for (int y = 0; y < c.out_height(); ++y) {
            for (int x = 0; x < c.out_width(); ++x) {
                double sum = c.bias != 0 ? layer.bias[static_cast<size_t>(channel)] : 0.0;
                double magnitude = std::fabs(sum);
                for (int ky = 0; ky < c.kernel; ++ky) {
                    for (int kx = 0; kx < c.kernel; ++kx) {
                        const auto tap = static_cast<size_t>((ky * c.kernel + kx) * c.channels);
                        const double product = layer.weights[tap + static_cast<size_t>(channel)] *
                                               padded(input, channel, y * c.stride_y - c.pad_y + ky,
                                                      x * c.stride_x - c.pad_x + kx);
                        sum += product;
                        magnitude += std::fabs(product);
                    }
                }
                result.values.at(channel, y, x) = clamped(c.activation, sum);
                result.errors.at(channel, y, x) = sum_error(c.kernel * c.kernel + 1, magnitude);
            }
        }
    }
    return result;
}

class DepthwiseGenerators : public GpuTest {
protected:
    /// Sets a generator up with a layer of random numbers, runs it, compares.
    template <typename Generator>
    void expect_right(const Case& c, unsigned int seed = 31) {
        SCOPED_TRACE(text_of(c) + ", seed " + std::to_string(seed));
        const Tensor input = random_halves(c.channels, c.height, c.width, seed, -4.0, 4.0);
        DepthwiseLayer layer(c, seed + 1);
        Generator generator(&manager);
        generator.setup(&layer.record);
        const auto source = upload(input);
        const auto target = make_output(c.channels, c.out_height(), c.out_width());
        generator.compute(source.get(), target.get());
        expect_matches(read_back(*target), depthwise_reference(c, input, layer));
    }

    template <typename Generator>
    void expect_right_for_all_channels(int kernel) {
        for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
            Case c;
            c.kernel = kernel;
            c.channels = channels;
            c.pad_x = c.pad_y = kernel / 2;
            expect_right<Generator>(c, 100 + static_cast<unsigned int>(channels));
        }
    }
};

TEST_F(DepthwiseGenerators, EachKeepsChannelsApartForAllChannelCounts) {
    expect_right_for_all_channels<Plain3x3>(3);
    expect_right_for_all_channels<Plain5x5>(5);
    expect_right_for_all_channels<FourPoints>(3);
}

TEST_F(DepthwiseGenerators, WeightsInUniformBlocksGiveTheSame) {
    manager.uboSliceLimit = 4;
    expect_right_for_all_channels<Plain3x3>(3);
    expect_right_for_all_channels<Plain5x5>(5);
    expect_right_for_all_channels<FourPoints>(3);
    EXPECT_TRUE(manager.IsExistComputeProgram(
        "depthwise_conv2d_ubo_kernel_3_3_5In_5Out_a0_s1_s1_bias1_localsize_8x8x1_program"));
}

TEST_F(DepthwiseGenerators, StridesAndPaddingsPlaceTheWindow) {
    for (const int stride_x : {1, 2, 3}) {
        for (const int stride_y : {1, 2}) {
            for (const int pad : {0, 1, 2}) {
                Case c;
                c.channels = 6;
                c.stride_x = stride_x;
                c.stride_y = stride_y;
                c.pad_x = pad;
                c.pad_y = 2 - pad;
                // Names tell no padding.
                manager.release();
                expect_right<Plain3x3>(c);
                c.kernel = 5;
                expect_right<Plain5x5>(c);
            }
        }
    }
    for (const int pad : {0, 1, 2}) {
        Case c;
        c.channels = 3;
        c.pad_x = pad;
        c.pad_y = 2 - pad;
        manager.release();
        expect_right<FourPoints>(c);
    }
}

TEST_F(DepthwiseGenerators, SizesThatFillNoWorkGroupOrHalfABlockOfFourPoints) {
    for (const int size : {1, 2, 3, 7, 8, 9, 15, 16, 17}) {
        Case c;
        c.width = size;
        c.height = 18 - size;
        c.channels = size % 2 == 0 ? 4 : 5;
        expect_right<Plain3x3>(c);
        expect_right<FourPoints>(c);
        c.kernel = 5;
        c.pad_x = c.pad_y = 2;
        expect_right<Plain5x5>(c);
    }
}

TEST_F(DepthwiseGenerators, OneByOneOutputOfAFullWindow) {
    Case c;
    c.pad_x = c.pad_y = 0;
    c.width = c.height = 3;
    c.channels = 9;
    expect_right<Plain3x3>(c);
    expect_right<FourPoints>(c);
    c.kernel = c.width = c.height = 5;
    expect_right<Plain5x5>(c);
}

TEST_F(DepthwiseGenerators, ActivationsOtherThanTheTwoClampsPassTheSumOn) {
    // 3 is tanh elsewhere: here it is nothing.
    for (int code = 0; code <= 9; ++code) {
        Case c;
        c.activation = code;
        c.channels = 4 + code % 3;
        c.bias = code % 2;
        expect_right<Plain3x3>(c);
        expect_right<FourPoints>(c);
        c.kernel = 5;
        c.pad_x = c.pad_y = 2;
        expect_right<Plain5x5>(c);
    }
}

TEST_F(DepthwiseGenerators, WithoutBiasTheNumbersOfTheFileAreNotAdded) {
    Case c;
    c.bias = 0;
    for (const int channels : {2, 7}) {
        c.channels = channels;
        expect_right<Plain3x3>(c);
        expect_right<FourPoints>(c);
    }
}

TEST_F(DepthwiseGenerators, WeightsOfFiveChannelsArePaddedWithZeros) {
    // The padding channels of the input are not 0, those of the output are.
    Case c;
    c.channels = 5;
    DepthwiseLayer layer(c);
    Plain3x3 generator(&manager);
    generator.setup(&layer.record);
    const auto source = upload(random_halves(5, c.height, c.width, 3), GL_RGBA16F, 9.0f);
    const auto target = make_output(5, c.out_height(), c.out_width());
    generator.compute(source.get(), target.get());
    const Tensor stored = read_back(*target);
    for (int channel = 5; channel < 8; ++channel) {
        for (int y = 0; y < stored.height; ++y) {
            for (int x = 0; x < stored.width; ++x) ASSERT_EQ(stored.at(channel, y, x), 0.0);
        }
    }
}

TEST_F(DepthwiseGenerators, HalfWeightsForMoreThanFourChannels) {
    for (const int limit : {0, 4}) {
        manager.uboSliceLimit = limit;
        manager.release();
        for (const int channels : {5, 8, 9, 16}) {
            for (const int code : {0, 2, 8}) {
                Case c;
                c.channels = channels;
                c.activation = code;
                c.bias = channels % 2;
                expect_right<FourPointsHalf>(c);
            }
        }
    }
}

TEST_F(DepthwiseGenerators, HalfWeightsForFourChannelsAreRefused) {
    Case c;
    DepthwiseLayer layer(c);
    FourPointsHalf generator(&manager);
    LogRecorder log;
    generator.setup(&layer.record);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text,
              "layer 5 (DepthWiseConv2D): expected more than 4 channels, found 4");
    EXPECT_EQ(manager.programCount(), 0);
}

TEST_F(DepthwiseGenerators, TheTwoFourPointClassesMayShareANameWithoutReadingBeyondABuffer) {
    // Whoever comes second runs the first one's program on numbers of the other kind. The results
    // are no use; every read stays inside the buffers.
    Case c;
    c.channels = 8;
    DepthwiseLayer layer(c);
    FourPoints first(&manager);
    first.setup(&layer.record);
    FourPointsHalf second(&manager);
    second.setup(&layer.record);
    EXPECT_EQ(manager.programCount(), 1);
    const auto source = upload(random_halves(8, c.height, c.width, 3));
    const auto target = make_output(8, c.out_height(), c.out_width());
    second.compute(source.get(), target.get());
}

TEST_F(DepthwiseGenerators, TwoLayersThatDifferInPaddingAloneShareTheProgramOfTheFirst) {
    Case padded_case;
    Case bare_case;
    bare_case.pad_x = bare_case.pad_y = 0;
    DepthwiseLayer padded_layer(padded_case);
    Plain3x3 first(&manager);
    first.setup(&padded_layer.record);
    DepthwiseLayer bare_layer(bare_case);
    Plain3x3 second(&manager);
    second.setup(&bare_layer.record);
    EXPECT_EQ(manager.programCount(), 1);
    EXPECT_EQ(manager.setupCosts.programsShared, 1);

    // The second layer's outputs lie one pixel off: they are those of a padding of 1.
    const Tensor input = random_halves(4, 9, 11, 5);
    const auto source = upload(input);
    const auto target = make_output(4, bare_case.out_height(), bare_case.out_width());
    second.compute(source.get(), target.get());
    const Reference all = depthwise_reference(padded_case, input, bare_layer);
    Reference corner(4, bare_case.out_height(), bare_case.out_width());
    for (int channel = 0; channel < 4; ++channel) {
        for (int y = 0; y < corner.values.height; ++y) {
            for (int x = 0; x < corner.values.width; ++x) {
                corner.values.at(channel, y, x) = all.values.at(channel, y, x);
                corner.errors.at(channel, y, x) = all.errors.at(channel, y, x);
            }
        }
    }
    expect_matches(read_back(*target), corner);
}

TEST_F(DepthwiseGenerators, ATruncatedSizeLeavesTheLastColumnUnwritten) {
    // 16.9 pixels: the image has 17, the dispatch covers 16.
    manager.netWidth = 90;
    Case c;
    c.width = 17;
    DepthwiseLayer layer(c);
    layer.record.out_shape->scale_x = half_pattern(nearest_half(16.9 / 90));
    Plain3x3 generator(&manager);
    generator.setup(&layer.record);
    const auto source = upload(random_halves(4, c.height, 17, 5));
    const auto target = make_output(4, c.out_height(), 17);
    generator.compute(source.get(), target.get());
    const Tensor stored = read_back(*target);
    EXPECT_FALSE(std::isnan(stored.at(0, 0, 15)));
    EXPECT_TRUE(std::isnan(stored.at(0, 0, 16)));
}

TEST_F(DepthwiseGenerators, ARecordOfAnotherKindOrWithTooFewNumbersIsRefusedAndDispatchesNothing) {
    Case c;
    const auto target = make_output(4, 9, 11);
    const auto source = upload(random_halves(4, 9, 11, 1));
    const auto expect_refused = [&](ZQLayerInfo* record, const std::string& line) {
        LogRecorder log;
        Plain3x3 generator(&manager);
        generator.setup(record);
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, line);
        generator.compute(source.get(), target.get());
        EXPECT_EQ(log.lines.size(), 2u);
        EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
    };
    ZQLayerInfo_Pooling pooling;
    pooling.id = 3;
    expect_refused(&pooling,
                   "layer 3 (Pooling): expected a record of DepthWiseConv2D, found Pooling");
    expect_refused(nullptr, "layer (DepthWiseConv2D): expected a record, found none");
    DepthwiseLayer short_weights(c);
    modelkit::assign_weights(short_weights.record, std::vector<unsigned short>(35));
    expect_refused(&short_weights.record,
                   "layer 5 (DepthWiseConv2D): expected 36 weights, found 35");
    DepthwiseLayer no_weights(c);
    modelkit::assign_weights(no_weights.record, {});
    expect_refused(&no_weights.record, "layer 5 (DepthWiseConv2D): expected 36 weights, found 0");
    DepthwiseLayer short_bias(c);
    modelkit::assign_bias(short_bias.record, std::vector<unsigned short>(3));
    expect_refused(&short_bias.record, "layer 5 (DepthWiseConv2D): expected 4 biases, found 3");
}

TEST_F(DepthwiseGenerators, LayersThatDifferInTheirWeightsAloneShareAProgramAndInActivationDont) {
    Case c;
    DepthwiseLayer one(c, 1), two(c, 2);
    c.activation = 2;
    DepthwiseLayer three(c, 1);
    Plain3x3 first(&manager), second(&manager), third(&manager);
    first.setup(&one.record);
    second.setup(&two.record);
    EXPECT_EQ(manager.programCount(), 1);
    third.setup(&three.record);
    EXPECT_EQ(manager.programCount(), 2);
}

// Names and texts, which need no context.

tesk::TricksParams params_of(int in_channels, int out_channels) {
    tesk::TricksParams params;
    params.localSizeX = params.localSizeY = 8;
    params.localSizeZ = 1;
    params.inChannels = in_channels;
    params.outChannels = out_channels;
    params.padX = 1;
    params.padY = 0;
    params.strideX = 2;
    params.strideY = 1;
    params.activation = 2;
    return params;
}

struct DepthwiseTexts : ::testing::Test {
    tesk::ComputeProgramManager manager{0, "test"};
};

TEST_F(DepthwiseTexts, NamesHoldKernelChannelsActivationStridesAndBias) {
    Plain3x3 plain(&manager);
    FourPoints four(&manager);
    FourPointsHalf half(&manager);
    tesk::TricksParams params = params_of(4, 5);
    EXPECT_EQ(plain.programName(params, "", 8, 8, 1),
              "depthwise_conv2d_ssbo_kernel_3_3_4_In_muti_Out_a2_s2_s1_bias1_localsize_8x8x1_"
              "program");
    EXPECT_EQ(four.programName(params, "", 8, 8, 1),
              "depthwise_conv2d_ssbo_4PointsOut_kernel_3_3_4_in_muti_out_a2_s2_s1_bias1_"
              "localsize_8x8x1_program");
    EXPECT_EQ(half.programName(params, "", 8, 8, 1), four.programName(params, "", 8, 8, 1));
    params.uboWeightCount = 18;
    params.hasBias = 0;
    EXPECT_EQ(plain.programName(params, "", 4, 2, 1),
              "depthwise_conv2d_ubo_kernel_3_3_4In_5Out_a2_s2_s1_bias0_localsize_4x2x1_program");
    EXPECT_EQ(four.programName(params, "", 8, 8, 1),
              "depthwise_conv2d_ubo_4PointsOut_kernel_3_3_4In_5Out_a2_s2_s1_bias0_"
              "localsize_8x8x1_program");
    params.kernelWidth = params.kernelHeight = 5;
    Plain5x5 five(&manager);
    EXPECT_EQ(five.programName(params, "", 8, 8, 1),
              "depthwise_conv2d_ubo_kernel_5_5_4In_5Out_a2_s2_s1_bias0_localsize_8x8x1_program");
}

TEST_F(DepthwiseTexts, FourChannelsReadAPlainTextureWithoutAnIndex) {
    Plain3x3 plain(&manager);
    tesk::TricksParams params = params_of(4, 4);
    const std::string source = plain.generateSource(params);
    EXPECT_EQ(source.find("#version 310 es\n"
                          "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;\n"),
              0u);
    for (const char* const piece :
         {"uniform lowp sampler2D src;",
          "uniform lowp sampler2D dstIn;",
          "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;",
          "layout(std430, binding = 2) buffer weight_buffer{",
          "vec4 weights[]; //o/4 x h x w x 4",
          "layout(std430, binding = 3) buffer bias_buffer{",
          "vec4 bias[]; //o/4 x 4",
          "void main(){ ",
          "ivec2 dst_gid = ivec2(gl_GlobalInvocationID.xy);",
          "int offset_x = 0;",
          "int offset_y = 1;",
          "ivec2 src_gid = ivec2(dst_gid.x * 2 + offset_x, dst_gid.y * 1 + offset_y);",
          "vec4 srcData[9];",
          "srcData[0] = texelFetchOffset(src, src_gid, 0, ivec2(-1, -1));",
          "srcData[1] = texelFetchOffset(src, src_gid, 0, ivec2(0, -1));",
          "srcData[8] = texelFetchOffset(src, src_gid, 0, ivec2(1, 1));",
          "int index_weights = 0;",
          "int index_bias = 0;",
          "vec4 dstData = vec4(0.0, 0.0, 0.0, 0.0);",
          "dstData += weights[index_weights + 0] * srcData[0];",
          "dstData += weights[index_weights + 8] * srcData[8];",
          "dstData += bias[index_bias];",
          "dstData = max(vec4(0.0, 0.0, 0.0, 0.0), dstData);",
          "imageStore(dst, dst_gid, dstData);"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_EQ(occurrences(source, "dstData += weights["), 9u);
    EXPECT_FALSE(contains(source, "Array"));
}

TEST_F(DepthwiseTexts, MoreChannelsReadAnArrayAndCountSlices) {
    Plain3x3 plain(&manager);
    tesk::TricksParams params = params_of(5, 5);
    params.activation = 8;
    params.hasBias = 0;
    params.uboWeightCount = 18;
    const std::string source = plain.generateSource(params);
    for (const char* const piece :
         {"uniform lowp sampler2DArray src;", "uniform lowp sampler2DArray dstIn;",
          "layout(rgba16f, binding = 1) writeonly uniform lowp image2DArray dst;",
          "layout(std140, binding = 2) uniform weight_buffer{", "vec4 weights[18];",
          "layout(std140, binding = 3) uniform bias_buffer{", "vec4 bias[2];",
          "ivec3 dst_gid = ivec3(gl_GlobalInvocationID.xyz);",
          "ivec3 src_gid = ivec3(dst_gid.x * 2 + offset_x, dst_gid.y * 1 + offset_y, dst_gid.z);",
          "int index_weights = dst_gid.z * 9;", "int index_bias = dst_gid.z;",
          "dstData = min(max(vec4(0.0, 0.0, 0.0, 0.0), dstData), 6.0);"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_FALSE(contains(source, "dstData += bias"));
}

TEST_F(DepthwiseTexts, FiveByFiveReads25Taps) {
    Plain5x5 five(&manager);
    tesk::TricksParams params = params_of(8, 8);
    params.kernelWidth = params.kernelHeight = 5;
    params.activation = 3;
    const std::string source = five.generateSource(params);
    for (const char* const piece :
         {"vec4 srcData[25];", "srcData[0] = texelFetchOffset(src, src_gid, 0, ivec2(-2, -2));",
          "srcData[24] = texelFetchOffset(src, src_gid, 0, ivec2(2, 2));",
          "int index_weights = dst_gid.z * 25;", "int offset_x = 1;", "int offset_y = 2;"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_EQ(occurrences(source, "dstData += weights["), 25u);
    EXPECT_FALSE(contains(source, "tanh"));
}

TEST_F(DepthwiseTexts, FourPointsShareAWindowOf16Texels) {
    FourPoints four(&manager);
    tesk::TricksParams params = params_of(8, 8);
    params.strideX = 1;
    const std::string source = four.generateSource(params);
    for (const char* const piece :
         {"ivec3 src_gid = ivec3(dst_gid.x * 1 * 2 + offset_x, dst_gid.y * 1 * 2 + offset_y, "
          "dst_gid.z);",
          "vec4 srcData[16];", "srcData[0] = texelFetchOffset(src, src_gid, 0, ivec2(-1, -1));",
          "srcData[15] = texelFetchOffset(src, src_gid, 0, ivec2(2, 2));",
          "dstData[0] += weights[index_weights + 0] * srcData[0];",
          "dstData[1] += weights[index_weights + 0] * srcData[1];",
          "dstData[2] += weights[index_weights + 0] * srcData[4];",
          "dstData[3] += weights[index_weights + 8] * srcData[15];",
          "dstData[0] += bias[index_bias];", "dstData[3] += bias[index_bias];",
          "dstData[0] = max(vec4(0.0, 0.0, 0.0, 0.0), dstData[0]);",
          "imageStore(dst, ivec3(dst_gid.x * 2,     dst_gid.y * 2,     dst_gid.z), dstData[0]);"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_EQ(occurrences(source, "texelFetchOffset("), 16u);
    EXPECT_EQ(occurrences(source, "dst_gid.z), dstData["), 4u);

    params.inChannels = params.outChannels = 3;
    EXPECT_TRUE(contains(four.generateSource(params),
                         "imageStore(dst, ivec2(dst_gid.x * 2,     dst_gid.y * 2"));
}

TEST_F(DepthwiseTexts, HalfWeightsAreUnpackedFromPairsOfWords) {
    FourPointsHalf half(&manager);
    tesk::TricksParams params = params_of(8, 8);
    const std::string source = half.generateSource(params);
    for (const char* const piece :
         {"vec4 unpack2Vec(in uvec2 wt)", "vec4(unpackHalf2x16(wt.x), unpackHalf2x16(wt.y))",
          "uvec2 weights[];", "uvec2 bias[];",
          "dstData[0] += unpack2Vec(weights[index_weights + 0]) * srcData[0];"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
}

TEST_F(DepthwiseTexts, PrintsNameTheLayer) {
    LogRecorder log;
    Plain3x3(&manager).print();
    FourPoints(&manager).print();
    Group(&manager).print();
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0].text, "Depthwise convolution 3x3 layer.");
    EXPECT_EQ(log.lines[1].text, "Depthwise convolution 3x3 layer.");
    EXPECT_EQ(log.lines[2].text, "I am Tricks_Group_Conv2d_Basic_3x3.");
}

// Groups.

struct GroupCase : Case {
    int dilation = 1;
    /// Taps stay side by side under a dilation, while the padding is divided by it.
    int first_x() const { return -(pad_x / dilation); }
    int first_y() const { return -(pad_y / dilation); }
};

/// weights[out][tap][in of the group]
struct GroupLayer {
    ZQLayerInfo_Conv2D record;
    std::vector<double> weights;
    std::vector<double> bias;

    explicit GroupLayer(const GroupCase& c, unsigned int seed = 7) {
        const auto channels = static_cast<size_t>(c.channels);
        weights = random_half_list(channels * 36, seed);
        bias = random_half_list(channels, seed + 1);
        record.id = 6;
        set_shapes(record, {c.channels, c.height, c.width},
                   {c.channels, c.out_height(), c.out_width()});
        record.kernel_w = record.kernel_h = 3;
        record.pad_w = static_cast<unsigned short>(c.pad_x);
        record.pad_h = static_cast<unsigned short>(c.pad_y);
        record.stride_w = static_cast<unsigned short>(c.stride_x);
        record.stride_h = static_cast<unsigned short>(c.stride_y);
        record.dilation_w = record.dilation_h = static_cast<unsigned short>(c.dilation);
        record.has_bias = static_cast<unsigned short>(c.bias);
        record.activation = static_cast<unsigned short>(c.activation);
        record.groups = static_cast<unsigned short>(c.channels / 4);
        EXPECT_TRUE(modelkit::assign_weights(record, half_patterns(weights)));
        EXPECT_TRUE(modelkit::assign_bias(record, half_patterns(bias)));
    }
};

class GroupGenerator : public GpuTest {
protected:
    void expect_right(const GroupCase& c, unsigned int seed = 57) {
        SCOPED_TRACE(text_of(c) + ", dilation " + std::to_string(c.dilation) + ", seed " +
                     std::to_string(seed));
        const Tensor input = random_halves(c.channels, c.height, c.width, seed, -2.0, 2.0);
        GroupLayer layer(c, seed + 1);
        Group generator(&manager);
        generator.setup(&layer.record);
        const auto source = upload(input);
        const auto target = make_output(c.channels, c.out_height(), c.out_width());
        generator.compute(source.get(), target.get());

        Reference want(c.channels, c.out_height(), c.out_width());
        for (int o = 0; o < c.channels; ++o) {
            for (int y = 0; y < c.out_height(); ++y) {
                for (int x = 0; x < c.out_width(); ++x) {
                    double sum = c.bias != 0 ? layer.bias[static_cast<size_t>(o)] : 0.0;
                    double magnitude = std::fabs(sum);
                    for (int tap = 0; tap < 9; ++tap) {
                        for (int i = 0; i < 4; ++i) {
                            const double product =
                                layer.weights[static_cast<size_t>((o * 9 + tap) * 4 + i)] *
                                padded(input, o / 4 * 4 + i, y * c.stride_y + c.first_y() + tap / 3,
                                       x * c.stride_x + c.first_x() + tap % 3);
                            sum += product;
                            magnitude += std::fabs(product);
                        }
                    }
                    want.values.at(o, y, x) = clamped(c.activation, sum);
                    want.errors.at(o, y, x) = sum_error(37, magnitude);
                }
            }
        }
        expect_matches(read_back(*target), want);
    }
};

TEST_F(GroupGenerator, EachSliceReadsItsOwnFourChannels) {
    for (const int limit : {0, 4}) {
        manager.uboSliceLimit = limit;
        for (const int channels : {8, 12, 16, 32}) {
            GroupCase c;
            c.channels = channels;
            expect_right(c);
        }
    }
}

TEST_F(GroupGenerator, StridesPaddingsSizesAndActivations) {
    for (const int stride : {1, 2}) {
        for (const int pad : {0, 1, 2}) {
            GroupCase c;
            c.channels = 8;
            c.stride_x = stride;
            c.stride_y = 3 - stride;
            c.pad_x = pad;
            c.pad_y = 2 - pad;
            expect_right(c);
        }
    }
    for (const int size : {1, 3, 8, 17}) {
        GroupCase c;
        c.channels = 8;
        c.width = size;
        c.height = 9;
        expect_right(c);
    }
    for (int code = 0; code <= 9; ++code) {
        GroupCase c;
        c.channels = 8;
        c.activation = code;
        c.bias = code % 2;
        expect_right(c);
    }
    GroupCase one;
    one.channels = 8;
    one.width = one.height = 3;
    one.pad_x = one.pad_y = 0;
    expect_right(one);
}

TEST_F(GroupGenerator, ADilationMovesTheWindowAndNotItsTaps) {
    GroupCase c;
    c.channels = 8;
    c.dilation = 2;
    c.pad_x = c.pad_y = 2;
    expect_right(c);
}

TEST_F(GroupGenerator, ARoundedSizeCoversTheLastColumn) {
    // 16.9 pixels: image and dispatch have 17.
    manager.netWidth = 90;
    GroupCase c;
    c.channels = 8;
    c.width = 17;
    GroupLayer layer(c);
    layer.record.out_shape->scale_x = half_pattern(nearest_half(16.9 / 90));
    Group generator(&manager);
    generator.setup(&layer.record);
    const auto source = upload(random_halves(8, c.height, 17, 5));
    const auto target = make_output(8, c.out_height(), 17);
    generator.compute(source.get(), target.get());
    EXPECT_FALSE(std::isnan(read_back(*target).at(0, 0, 16)));
}

TEST_F(GroupGenerator, GroupsOfAnotherSizeAndShortArraysAreRefused) {
    GroupCase c;
    c.channels = 8;
    const auto expect_refused = [&](const GroupLayer& layer, const std::string& line) {
        LogRecorder log;
        Group generator(&manager);
        generator.setup(const_cast<ZQLayerInfo_Conv2D*>(&layer.record));
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, line);
        EXPECT_EQ(manager.programCount(), 0);
    };
    GroupLayer pairs(c);
    pairs.record.groups = 4;
    expect_refused(pairs,
                   "layer 6 (Conv2D): expected 4 inputs and 4 outputs in a group, found 8 "
                   "inputs and 8 outputs in 4 groups");
    GroupLayer short_weights(c);
    modelkit::assign_weights(short_weights.record, std::vector<unsigned short>(287));
    expect_refused(short_weights, "layer 6 (Conv2D): expected 288 weights, found 287");
    GroupLayer short_bias(c);
    modelkit::assign_bias(short_bias.record, {});
    expect_refused(short_bias, "layer 6 (Conv2D): expected 8 biases, found 0");
    manager.uboSliceLimit = 4;
    c.channels = 1024;
    GroupLayer long_weights(c);
    expect_refused(long_weights,
                   "layer 6 (Conv2D): expected weights of at most 65536 bytes in a "
                   "uniform block, found 73728");
}

TEST_F(DepthwiseTexts, GroupNamesHoldTheChannelsOfAGroup) {
    Group group(&manager);
    tesk::TricksParams params = params_of(8, 8);
    params.groups = 2;
    params.dilationY = 3;
    EXPECT_EQ(group.programName(params, "Group_Conv2D", 8, 8, 1),
              "Group_Conv2D_ssbo_basic_kernel_3_3_a2_padding_1_0_s2_1_dilation_1_3_"
              "groupChannel_in4_out4_bias1_localsize_8x8x1_program");
    params.uboWeightCount = 4096;
    EXPECT_EQ(group.programName(params, "Group_Conv2D", 8, 8, 1),
              "Group_Conv2D_ubo_basic_kernel_3_3_a2_padding_1_0_s2_1_dilation_1_3_"
              "groupChannel_in4_out4_bias1_localsize_8x8x1_program");
}

TEST_F(DepthwiseTexts, GroupsMultiplyAMatrixForEachTap) {
    Group group(&manager);
    tesk::TricksParams params = params_of(8, 8);
    params.groups = 2;
    params.padX = 4;
    params.dilationX = 2;
    const std::string source = group.generateSource(params);
    for (const char* const piece :
         {"uniform lowp sampler2DArray src;",
          "layout(rgba16f, binding = 1) writeonly uniform lowp image2DArray dst;",
          "layout(std430, binding = 2) buffer weight_buffer{",
          "uvec4 weights[]; //o/4 x 4 x h x w x 4",
          "layout(std430, binding = 3) buffer bias_buffer{", "uvec4 bias[]; //o/4 x 4",
          "unpack2Mat(in uvec4 wt1, in uvec4 wt2)",
          "tmp_w[0] = vec4(unpackHalf2x16(wt1.x), unpackHalf2x16(wt1.y));",
          "ivec3 dst_gid = ivec3(gl_GlobalInvocationID.xyz);",
          "ivec3 src_gid = ivec3(dst_gid.x * 2, dst_gid.y * 1, dst_gid.z) + ivec3(-1, 1, 0);",
          "vec4 srcData[9];", "int index_weights = dst_gid.z * 18;",
          "dstData += (unpack2Mat(weights[index_weights + 0], weights[index_weights + 1])) * "
          "srcData[0];",
          "dstData += (unpack2Mat(weights[index_weights + 16], weights[index_weights + 17])) * "
          "srcData[8];",
          "unpackHalf2x16(bias[dst_gid.z].x)"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_FALSE(contains(source, "InverseTransform"));
    EXPECT_FALSE(contains(source, "dstIn"));
}

}  // namespace
