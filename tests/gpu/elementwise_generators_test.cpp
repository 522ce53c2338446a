// Element-wise operations, concatenation and activation on the GPU, each generator by itself.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_activation.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_concat.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_elementwise_add_points.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_elementwise_operator.h"
#include "support/generators.h"
#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;
using tesk::Tricks_Activation;
using tesk::Tricks_Concat;
using tesk::Tricks_ElementWise_Add;
using tesk::Tricks_ElementWise_Mul;
using Images = std::vector<std::shared_ptr<tesk::Image>>;

tesk::TricksParams params_of(int channels, int activation) {
    tesk::TricksParams params;
    params.localSizeX = params.localSizeY = 8;
    params.localSizeZ = 1;
    params.inChannels = params.outChannels = channels;
    params.activation = static_cast<int16_t>(activation);
    return params;
}

struct GeneratorTexts : ::testing::Test {
    tesk::ComputeProgramManager manager{0, "test"};
};

/// How many error lines a run of `work` logs.
template <typename Work>
size_t errors_of(const Work& work) {
    LogRecorder log;
    work();
    size_t errors = 0;
    for (const LogRecorder::Line& line : log.lines)
        errors += line.level == Tarno::LogLevel::Error ? 1 : 0;
    return errors;
}

size_t lines_with(const LogRecorder& log, const std::string& text) {
    size_t lines = 0;
    for (const LogRecorder::Line& line : log.lines) lines += line.text == text ? 1 : 0;
    return lines;
}

// Element-wise.

void fill(ZQLayerInfo_ElementWiseOperator& record, int operation, int inputs,
          const LayerShape& shape, int activation) {
    record.id = 9;
    record.bottom_count = static_cast<unsigned short>(inputs);
    for (int i = 0; i < 10 && i < inputs; ++i) set_shape(record.in_shapes[i], shape);
    set_shape(*record.out_shape, shape);
    record.operator_type = static_cast<unsigned short>(operation);
    record.activation = static_cast<unsigned short>(activation);
}

class ElementWise : public GpuTest {
protected:
    template <typename Generator>
    void expect_right(int operation, int inputs, const LayerShape& shape, int activation) {
        SCOPED_TRACE("operation " + std::to_string(operation) + ", inputs " +
                     std::to_string(inputs) + ", channels " + std::to_string(shape.channels) +
                     ", size " + std::to_string(shape.width) + "x" + std::to_string(shape.height) +
                     ", activation " + std::to_string(activation));
        ZQLayerInfo_ElementWiseOperator record;
        fill(record, operation, inputs, shape, activation);
        Generator generator(&manager);
        generator.setup(&record);

        Images images;
        Reference want(shape.channels, shape.height, shape.width);
        for (int i = 0; i < inputs; ++i) {
            const Tensor tensor = random_halves(shape.channels, shape.height, shape.width,
                                                41 + static_cast<unsigned int>(i), -5.0, 5.0);
            images.push_back(upload(tensor));
            for (size_t k = 0; k < tensor.values.size(); ++k) {
                double& value = want.values.values[k];
                if (i == 0) {
                    value = tensor.values[k];
                } else {
                    value = operation == 0 ? value + tensor.values[k] : value * tensor.values[k];
                }
                // A float rounds each of at most two operations on numbers up to 25.
                want.errors.values[k] = 2 * std::ldexp(25.0, -24);
            }
        }
        for (double& value : want.values.values) value = clamped(activation, value);
        const auto target = make_output(shape.channels, shape.height, shape.width);
        generator.compute(images, target.get());
        expect_matches(read_back(*target), want);
        for (const auto& image : images) EXPECT_EQ(image->readCount(), 1);
    }
};

TEST_F(ElementWise, SumsAndProductsForAllChannelCounts) {
    for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
        expect_right<Tricks_ElementWise_Add>(0, 2, {channels, 9, 11}, 0);
        expect_right<Tricks_ElementWise_Add>(0, 3, {channels, 9, 11}, 2);
        expect_right<Tricks_ElementWise_Mul>(2, 2, {channels, 9, 11}, 0);
    }
}

TEST_F(ElementWise, ActivationsOtherThanTheTwoClampsPassTheValueOn) {
    for (int code = 0; code <= 9; ++code) {
        expect_right<Tricks_ElementWise_Add>(0, 2, {4 + code % 2, 5, 6}, code);
        expect_right<Tricks_ElementWise_Mul>(2, 2, {5 - code % 2, 5, 6}, code);
    }
}

TEST_F(ElementWise, OddSizesAndOnePixel) {
    for (const int size : {1, 2, 7, 8, 9, 17}) {
        expect_right<Tricks_ElementWise_Add>(0, 2, {3, size, 18 - size}, 2);
        expect_right<Tricks_ElementWise_Mul>(2, 2, {7, size, 18 - size}, 8);
    }
    expect_right<Tricks_ElementWise_Add>(0, 3, {9, 1, 1}, 0);
}

TEST_F(ElementWise, AProductOfThreeDoesNotCompileAndIsNotDispatched) {
    ZQLayerInfo_ElementWiseOperator record;
    fill(record, 2, 3, {4, 4, 4}, 0);
    Tricks_ElementWise_Mul generator(&manager);
    EXPECT_GT(errors_of([&] { generator.setup(&record); }), 0u);
    EXPECT_EQ(manager.programCount(), 1);
    Images images;
    for (unsigned int i = 0; i < 3; ++i) images.push_back(upload(random_halves(4, 4, 4, i)));
    const auto target = make_output(4, 4, 4);
    // Set-up has said why; a frame says so at verbose level only.
    EXPECT_EQ(errors_of([&] { generator.compute(images, target.get()); }), 0u);
    EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
}

TEST_F(ElementWise, AnotherNumberOfInputsDoesNothing) {
    ZQLayerInfo_ElementWiseOperator record;
    fill(record, 0, 2, {4, 4, 4}, 0);
    Tricks_ElementWise_Add generator(&manager);
    generator.setup(&record);
    Images images;
    const auto target = make_output(4, 4, 4);
    for (unsigned int i = 0; i < 4; ++i) {
        if (i != 2) {
            EXPECT_EQ(errors_of([&] { generator.compute(images, target.get()); }), 0u);
            EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
        }
        images.push_back(upload(random_halves(4, 4, 4, i)));
    }
}

TEST_F(ElementWise, ALayerOfOneOrFourInputsIsRefused) {
    for (const int inputs : {0, 1, 4, 10, 11}) {
        ZQLayerInfo_ElementWiseOperator record;
        fill(record, 0, inputs, {4, 4, 4}, 0);
        LogRecorder log;
        Tricks_ElementWise_Add generator(&manager);
        generator.setup(&record);
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text,
                  "layer 9 (ElementWiseOperator): expected 2 or 3 inputs, found " +
                      std::to_string(inputs));
        Images images(static_cast<size_t>(inputs), upload(random_halves(4, 4, 4, 1)));
        const auto target = make_output(4, 4, 4);
        generator.compute(images, target.get());
        EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
    }
    EXPECT_EQ(manager.programCount(), 0);
}

TEST_F(ElementWise, SeveralPointsAndSlicesForEachInvocationGiveTheSameSum) {
    for (const int channels : {1, 4, 5, 8, 9, 12, 16}) {
        for (const int size : {1, 8, 9, 17}) {
            const LayerShape shape = {channels, size, 18 - size};
            const int code = size % 2 == 0 ? 2 : 0;
            expect_right<tesk::Tricks_ElementWise_Add_1Points_2Slice>(0, 2, shape, code);
            expect_right<tesk::Tricks_ElementWise_Add_4Points_1Slice>(0, 2, shape, code);
            expect_right<tesk::Tricks_ElementWise_Add_4Points_2Slice>(0, 2, shape, code);
        }
    }
}

TEST_F(ElementWise, ThePointClassesKnowReluOnlyAndTwoInputsOnly) {
    ZQLayerInfo_ElementWiseOperator record;
    fill(record, 0, 3, {4, 4, 4}, 0);
    LogRecorder log;
    tesk::Tricks_ElementWise_Add_4Points_2Slice generator(&manager);
    generator.setup(&record);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "layer 9 (ElementWiseOperator): expected 2 inputs, found 3");
    tesk::TricksParams params = params_of(8, 8);
    EXPECT_FALSE(contains(generator.generateSource(params, 0, 2), "6.0"));
}

TEST_F(GeneratorTexts, AddOfTwoTensorsOfFourChannels) {
    Tricks_ElementWise_Add add(&manager);
    tesk::TricksParams params = params_of(4, 2);
    EXPECT_EQ(add.programName(params, "Add", 2, 8, 8, 1),
              "Add_elementwise_4_out_a2_inputNum_2_localsize_8x8x1_program");
    const std::string source = add.generateSource(params, 0, 2);
    for (const char* const piece :
         {"#version 310 es\nlayout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;\n",
          "uniform lowp sampler2D src0;", "uniform lowp sampler2D src1;",
          "layout(rgba16f, binding = 2) writeonly uniform lowp image2D dst;", "void main(){ ",
          "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);",
          "vec4 out_value = texelFetchOffset(src0, pos, 0, ivec2(0, 0)) + texelFetchOffset(src1, "
          "pos, 0, ivec2(0, 0)); \n",
          "out_value = max(vec4(0.0,0.0,0.0,0.0), out_value);\n",
          "imageStore(dst, pos, out_value); \n"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_FALSE(contains(source, "src2"));
}

TEST_F(GeneratorTexts, AddOfThreeArraysStoresAtBindingThree) {
    Tricks_ElementWise_Add add(&manager);
    tesk::TricksParams params = params_of(5, 8);
    EXPECT_EQ(add.programName(params, "Add", 3, 8, 8, 1),
              "Add_elementwise_muti_out_a8_inputNum_3_localsize_8x8x1_program");
    const std::string source = add.generateSource(params, 0, 3);
    for (const char* const piece :
         {"uniform lowp sampler2DArray src2;",
          "layout(rgba16f, binding = 3) writeonly uniform lowp image2DArray dst;",
          "ivec3 pos = ivec3(gl_GlobalInvocationID.xyz);",
          "+ texelFetchOffset(src2, pos, 0, ivec2(0, 0)); \n",
          "out_value = min(max(vec4(0.0, 0.0, 0.0, 0.0), out_value), 6.0); \n"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
}

TEST_F(GeneratorTexts, EachOperationHasItsSignAndThreeInputsOnlyTheSum) {
    Tricks_ElementWise_Mul mul(&manager);
    tesk::TricksParams params = params_of(8, 0);
    EXPECT_TRUE(contains(mul.generateSource(params, 1, 2), "ivec2(0, 0)) - texel"));
    EXPECT_TRUE(contains(mul.generateSource(params, 2, 2), "ivec2(0, 0)) * texel"));
    EXPECT_TRUE(contains(mul.generateSource(params, 3, 2), "ivec2(0, 0)) / texel"));
    EXPECT_FALSE(contains(mul.generateSource(params, 4, 2), "vec4 out_value"));
    for (const int operation : {1, 2, 3})
        EXPECT_FALSE(contains(mul.generateSource(params, operation, 3), "vec4 out_value"));
    EXPECT_EQ(mul.programName(params, "Mul", 2, 8, 8, 1),
              "Mul_elementwise_muti_out_a0_inputNum_2_localsize_8x8x1_program");
}

TEST_F(GeneratorTexts, PointClassesNameTheirBlocks) {
    tesk::TricksParams params = params_of(8, 2);
    tesk::Tricks_ElementWise_Add_1Points_2Slice slices(&manager);
    tesk::Tricks_ElementWise_Add_4Points_1Slice points(&manager);
    tesk::Tricks_ElementWise_Add_4Points_2Slice both(&manager);
    EXPECT_EQ(slices.programName(params, "ElementWise_Add", 2, 8, 8, 1),
              "ElementWise_Add_1Points_2Slice_muti_out_a2_localsize_8x8x1_program");
    EXPECT_EQ(points.programName(params, "ElementWise_Add", 2, 8, 8, 1),
              "ElementWise_Add_4Points_1Slice_muti_out_a2_localsize_8x8x1_program");
    EXPECT_EQ(both.programName(params, "ElementWise_Add", 2, 8, 8, 1),
              "ElementWise_Add_4Points_2Slice_muti_out_a2_localsize_8x8x1_program");
    const std::string source = both.generateSource(params, 0, 2);
    EXPECT_TRUE(
        contains(source, "ivec3 src_pos_base_slice0 = ivec3(pos.x * 2, pos.y * 2, pos.z * 2);"));
    EXPECT_TRUE(contains(
        source, "ivec3 src_pos_base_slice1 = ivec3(pos.x * 2, pos.y * 2, pos.z * 2 + 1);"));
}

// Concatenation.

void fill(ZQLayerInfo_Concatenate& record, const std::vector<int>& channels, int out_channels,
          int height, int width) {
    record.id = 12;
    record.bottom_count = static_cast<unsigned short>(channels.size());
    for (size_t i = 0; i < channels.size(); ++i)
        set_shape(record.in_shapes[i], {channels[i], height, width});
    set_shape(*record.out_shape, {out_channels, height, width});
}

class Concat : public GpuTest {
protected:
    /// Runs a concatenation whose output has whole slices of the inputs in the order of `sources`:
    /// pairs of input and slice.
    void expect_slices(const std::vector<int>& channels,
                       const std::vector<std::pair<size_t, int>>& sources, int height = 9,
                       int width = 11) {
        std::string trace = "channels";
        int sum = 0;
        for (const int count : channels) {
            trace += " " + std::to_string(count);
            sum += count;
        }
        SCOPED_TRACE(trace);
        ZQLayerInfo_Concatenate record;
        fill(record, channels, sum, height, width);
        Tricks_Concat generator(&manager);
        generator.setup(&record);

        Images images;
        std::vector<Tensor> stored;
        for (size_t i = 0; i < channels.size(); ++i) {
            const Tensor tensor =
                random_halves(channels[i], height, width, 71 + static_cast<unsigned int>(i));
            // The padding of each input has a number of its own.
            images.push_back(upload(tensor, GL_RGBA16F, 100.0f + static_cast<float>(i)));
            images.back()->addReadCount();
            stored.push_back(read_back(*images.back()));
        }
        Tensor want(4 * static_cast<int>(sources.size()), height, width);
        for (size_t slice = 0; slice < sources.size(); ++slice) {
            for (int c = 0; c < 4; ++c) {
                for (int y = 0; y < height; ++y) {
                    for (int x = 0; x < width; ++x) {
                        want.at(4 * static_cast<int>(slice) + c, y, x) =
                            stored[sources[slice].first].at(4 * sources[slice].second + c, y, x);
                    }
                }
            }
        }
        const auto target = make_output(sum, height, width);
        generator.compute(images, target.get());
        const Tensor found = read_back(*target);
        ASSERT_EQ(found.channels, want.channels);
        expect_equals(found, want);
        for (const auto& image : images) EXPECT_EQ(image->readCount(), 1);
    }
};

TEST_F(Concat, TwoInputsOfWholeSlices) {
    expect_slices({8, 8}, {{0, 0}, {0, 1}, {1, 0}, {1, 1}});
    expect_slices({8, 12}, {{0, 0}, {0, 1}, {1, 0}, {1, 1}, {1, 2}}, 1, 1);
    expect_slices({8, 5}, {{0, 0}, {0, 1}, {1, 0}, {1, 1}}, 17, 8);
}

TEST_F(Concat, ThreeAndFiveInputsOfWholeSlices) {
    expect_slices({8, 8, 8}, {{0, 0}, {0, 1}, {1, 0}, {1, 1}, {2, 0}, {2, 1}});
    expect_slices({8, 8, 8, 8, 8},
                  {{0, 0}, {0, 1}, {1, 0}, {1, 1}, {2, 0}, {2, 1}, {3, 0}, {3, 1}, {4, 0}, {4, 1}});
}

TEST_F(Concat, InputsOfUpToFourChannelsArePlainTextures) {
    expect_slices({4, 4}, {{0, 0}, {1, 0}});
    expect_slices({4, 4, 8}, {{0, 0}, {1, 0}, {2, 0}, {2, 1}});
    expect_slices({4, 4, 4, 4, 4}, {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}});
}

TEST_F(Concat, ChannelsThatFillNoSliceKeepTheirPaddingInside) {
    // Five channels are two slices, of which the second holds three components of padding.
    expect_slices({5, 7}, {{0, 0}, {0, 1}, {1, 0}});
}

TEST_F(Concat, BoundariesAreSumsOfChannelsSoThatThreeOneOneDropsTheSecond) {
    expect_slices({3, 1, 1}, {{0, 0}, {2, 0}});
}

TEST_F(Concat, AnOutputOfUpToFourChannelsIsAPlainTexture) {
    expect_slices({3, 1}, {{0, 0}});
}

TEST_F(Concat, FourInputsAreReportedAtSetupAndLoggedAtEachRun) {
    ZQLayerInfo_Concatenate record;
    fill(record, {4, 4, 4, 4}, 16, 4, 4);
    LogRecorder log;
    Tricks_Concat generator(&manager);
    generator.setup(&record);
    EXPECT_EQ(lines_with(log, "layer 12 (Concatenate): expected 2, 3 or 5 inputs, found 4"), 1u);
    EXPECT_EQ(manager.programCount(), 0);

    Images images;
    for (unsigned int i = 0; i < 4; ++i) {
        images.push_back(upload(random_halves(4, 4, 4, i)));
        images.back()->addReadCount();
    }
    const auto target = make_output(16, 4, 4);
    AssertRecorder assertions;
    for (size_t run = 1; run <= 2; ++run) {
        generator.compute(images, target.get());
        EXPECT_EQ(lines_with(log, "concat only support 2_input and 3+1+1 and 3_input and 5_input"),
                  run);
    }
    EXPECT_EQ(assertions.count(), 0u);
    EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
    for (const auto& image : images) EXPECT_EQ(image->readCount(), 2);
}

TEST_F(Concat, AnotherNumberOfInputsThanTheRecordsFailsTheAssertion) {
    ZQLayerInfo_Concatenate record;
    fill(record, {4, 4}, 8, 4, 4);
    Tricks_Concat generator(&manager);
    generator.setup(&record);
    Images images = {upload(random_halves(4, 4, 4, 1))};
    const auto target = make_output(8, 4, 4);
    AssertRecorder assertions;
    generator.compute(images, target.get());
    EXPECT_EQ(assertions.count("inputs.size() == _concat_Num"), 1u);
    EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
}

TEST_F(Concat, ARecordOfAnotherKindIsRefused) {
    ZQLayerInfo_Activation record;
    record.id = 2;
    LogRecorder log;
    Tricks_Concat(&manager).setup(&record);
    EXPECT_EQ(
        lines_with(log, "layer 2 (Activation): expected a record of Concatenate, found Activation"),
        1u);
}

TEST_F(GeneratorTexts, ConcatNamesHoldTheChannelsOfAllInputs) {
    Tricks_Concat concat(&manager);
    tesk::TricksParams params = params_of(8, 0);
    EXPECT_EQ(concat.programName(params, {8, 8}, 8, 8, 1),
              "Concatenate_inputNum_2_inChannels_8_8_localsize_8x8x1_program");
    EXPECT_EQ(concat.programName(params, {3, 1, 1}, 8, 8, 1),
              "Concatenate_inputNum_3_inChannels_3_1_1_localsize_8x8x1_program");
    EXPECT_EQ(concat.programName(params, {1, 2, 3, 4, 5}, 8, 8, 1),
              "Concatenate_inputNum_5_inChannels_1_2_3_4_5_localsize_8x8x1_program");
    EXPECT_EQ(concat.programName(params, {1, 2, 3, 4}, 8, 8, 1), "");
    EXPECT_EQ(concat.generateSource(params, {1, 2, 3, 4}), "");
}

TEST_F(GeneratorTexts, ConcatOfEightAndEightTakesTheSecondFromSliceTwoOn) {
    Tricks_Concat concat(&manager);
    tesk::TricksParams params = params_of(16, 0);
    const std::string source = concat.generateSource(params, {8, 8});
    for (const char* const piece :
         {"layout(rgba16f, binding = 0) readonly uniform lowp image2DArray src0;",
          "layout(rgba16f, binding = 1) readonly uniform lowp image2DArray src1;",
          "layout(rgba16f, binding = 2) writeonly uniform lowp image2DArray dst;", "void main(){ ",
          "ivec3 pos = ivec3(gl_GlobalInvocationID.xyz);", "vec4 srcValue;", "ivec3 src_pos;",
          "if (pos.z >= 2)", "src_pos = ivec3(pos.x, pos.y, pos.z - 2);",
          "srcValue = imageLoad(src1, src_pos);", "src_pos = pos;",
          "srcValue = imageLoad(src0, src_pos);", "imageStore(dst, pos, srcValue);"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    // Up to four channels are plain textures, which an array's image takes all the same.
    for (const std::vector<int>& channels : {std::vector<int>{4, 4}, {3, 1, 1}, {1, 1, 1, 1, 1}}) {
        const std::string small = concat.generateSource(params, channels);
        EXPECT_EQ(occurrences(small, "uniform lowp image2DArray "), channels.size() + 1);
        EXPECT_EQ(occurrences(small, "image2D "), 0u);
    }
    const std::string five = concat.generateSource(params, {8, 4, 6, 3, 9});
    EXPECT_TRUE(contains(five, "layout(rgba16f, binding = 5) writeonly"));
    const size_t last = five.find("if (pos.z >= 6)");
    const size_t fourth = five.find("else if (pos.z >= 5)");
    const size_t third = five.find("else if (pos.z >= 3)");
    const size_t second = five.find("else if (pos.z >= 2)");
    ASSERT_NE(second, std::string::npos) << five;
    EXPECT_LT(last, fourth);
    EXPECT_LT(fourth, third);
    EXPECT_LT(third, second);
}

// Activation.

class ActivationGenerator : public GpuTest {};

TEST_F(ActivationGenerator, EachCodeForAllChannelCounts) {
    for (const int code : {2, 4, 8, 9}) {
        for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
            const int height = 1 + channels, width = 18 - channels;
            SCOPED_TRACE("code " + std::to_string(code) + ", channels " + std::to_string(channels));
            ZQLayerInfo_Activation record;
            set_shapes(record, {channels, height, width}, {channels, height, width});
            record.activation_type = static_cast<unsigned short>(code);
            Tricks_Activation generator(&manager);
            generator.setup(&record);
            const Tensor input = random_halves(channels, height, width, 91, -10.0, 10.0);
            Reference want(channels, height, width);
            for (size_t k = 0; k < input.values.size(); ++k) {
                const double value = input.values[k];
                double& result = want.values.values[k];
                if (code == 4) {
                    result = 1.0 / (1.0 + std::exp(-value));
                    // GLSL lets exp be off by (3 + 2 |x|) units of the last place, and the division
                    // by 2.5.
                    want.errors.values[k] =
                        std::ldexp(result, -23) * (3 + 2 * std::fabs(value) + 3);
                } else if (code == 9) {
                    result = std::min(std::max(0.0, value), 8.0);
                } else {
                    result = clamped(code, value);
                }
            }
            const auto source = upload(input);
            const auto target = make_output(channels, height, width);
            generator.compute(source.get(), target.get());
            expect_matches(read_back(*target), want);
        }
    }
}

TEST_F(ActivationGenerator, OnePixel) {
    ZQLayerInfo_Activation record;
    set_shapes(record, {6, 1, 1}, {6, 1, 1});
    record.activation_type = 2;
    Tricks_Activation generator(&manager);
    generator.setup(&record);
    const Tensor input = random_halves(6, 1, 1, 3);
    Reference want(6, 1, 1);
    for (int c = 0; c < 6; ++c) want.values.at(c, 0, 0) = std::max(0.0, input.at(c, 0, 0));
    const auto source = upload(input);
    const auto target = make_output(6, 1, 1);
    generator.compute(source.get(), target.get());
    expect_matches(read_back(*target), want);
}

TEST_F(ActivationGenerator, AnyOtherCodeIsLoggedDoesNotCompileAndIsNotDispatched) {
    for (const int code : {0, 1, 3, 5, 6, 7, 10, 65535}) {
        ZQLayerInfo_Activation record;
        set_shapes(record, {4, 4, 4}, {4, 4, 4});
        record.activation_type = static_cast<unsigned short>(code);
        Tricks_Activation generator(&manager);
        {
            LogRecorder log;
            generator.setup(&record);
            EXPECT_EQ(lines_with(log, "activation operator type not support yet"), 1u);
        }
        const auto source = upload(random_halves(4, 4, 4, 1));
        const auto target = make_output(4, 4, 4);
        EXPECT_EQ(errors_of([&] { generator.compute(source.get(), target.get()); }), 0u);
        EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
    }
}

TEST_F(GeneratorTexts, ActivationNamesHoldTheCodeAndTextsOneLine) {
    Tricks_Activation activation(&manager);
    tesk::TricksParams params = params_of(4, 9);
    EXPECT_EQ(activation.programName(params, "Activation", 8, 8, 1),
              "Activation_type_9_4_In_4_Out_localsize_8x8x1_program");
    std::string source = activation.generateSource(params);
    for (const char* const piece :
         {"uniform lowp sampler2D src;",
          "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;",
          "ivec2 out_pos = ivec2(gl_GlobalInvocationID.xy);",
          "ivec2 in_pos = ivec2(out_pos.x, out_pos.y);",
          "vec4 out_value = texelFetchOffset(src, in_pos, 0, ivec2(0, 0));",
          "out_value = min(max(vec4(0.0, 0.0, 0.0, 0.0), out_value), 8.0);",
          "imageStore(dst, out_pos, out_value);"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    params = params_of(5, 4);
    EXPECT_EQ(activation.programName(params, "Activation", 8, 8, 1),
              "Activation_type_4_muti_In_muti_Out_localsize_8x8x1_program");
    source = activation.generateSource(params);
    for (const char* const piece :
         {"uniform lowp sampler2DArray src;",
          "layout(rgba16f, binding = 1) writeonly uniform lowp image2DArray dst;",
          "ivec3 out_pos = ivec3(gl_GlobalInvocationID.xyz);",
          "out_value = 1.0 / (1.0 + exp(vec4(0.0, 0.0, 0.0, 0.0) - out_value));"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    params.activation = 2;
    EXPECT_TRUE(contains(activation.generateSource(params),
                         "out_value = max(vec4(0.0, 0.0, 0.0, 0.0), out_value);"));
    params.activation = 8;
    EXPECT_TRUE(contains(activation.generateSource(params),
                         "out_value = min(max(vec4(0.0, 0.0, 0.0, 0.0), out_value), 6.0);"));
}

TEST_F(GeneratorTexts, PrintsNameTheLayer) {
    LogRecorder log;
    Tricks_ElementWise_Add(&manager).print();
    Tricks_Concat(&manager).print();
    Tricks_Activation(&manager).print();
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0].text, "ElementWise_Operator layer");
    EXPECT_EQ(log.lines[1].text, "Concat layer");
    EXPECT_EQ(log.lines[2].text, "Activation layer");
}

}  // namespace
