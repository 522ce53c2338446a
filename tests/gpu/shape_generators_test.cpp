// Region, reshape, squeeze and full connection on the GPU, each generator by itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_fullconnection.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_region2d.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorreshape.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorsqueeze.h"
#include "support/generators.h"
#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;
using tesk::Tricks_FullConnection;
using tesk::Tricks_Region2D;
using tesk::Tricks_TensorReshape;
using tesk::Tricks_TensorSqueeze;

size_t lines_with(const LogRecorder& log, const std::string& text) {
    size_t lines = 0;
    for (const LogRecorder::Line& line : log.lines) lines += line.text == text ? 1 : 0;
    return lines;
}

// Region.

struct Head {
    int anchors;
    int coords;
    int classes;

    int values() const { return (coords + 1 + classes) * anchors; }
    int slices() const { return (values() + 3) / 4; }
};

class Region : public GpuTest {
protected:
    static void fill(ZQLayerInfo_Region& record, const Head& head, int height, int width) {
        record.id = 8;
        set_shapes(record, {head.values(), height, width}, {head.values(), height, width});
        record.region_a = static_cast<unsigned short>(head.anchors);
        record.region_b = static_cast<unsigned short>(head.coords);
        record.region_c = static_cast<unsigned short>(head.classes);
    }

    void expect_right(const Head& head, int height, int width, double high = 6.0) {
        SCOPED_TRACE(std::to_string(head.anchors) + " anchors, " + std::to_string(head.coords) +
                     " coordinates, " + std::to_string(head.classes) + " classes, " +
                     std::to_string(width) + "x" + std::to_string(height));
        ZQLayerInfo_Region record;
        fill(record, head, height, width);
        Tricks_Region2D generator(&manager);
        generator.setup(&record);
        const int slices = head.slices();
        const Tensor input = random_halves(4 * slices, height, width, 37, -high, high);
        Reference want(4, height, width * slices);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                std::vector<double> pixel, errors(static_cast<size_t>(4 * slices), 0.0);
                for (int c = 0; c < 4 * slices; ++c) pixel.push_back(input.at(c, y, x));
                decode(head, high, pixel, errors);
                for (int c = 0; c < 4 * slices; ++c) {
                    want.values.at(c % 4, y, x * slices + c / 4) = pixel[static_cast<size_t>(c)];
                    want.errors.at(c % 4, y, x * slices + c / 4) = errors[static_cast<size_t>(c)];
                }
            }
        }
        const auto source = upload(input);
        const auto target = make_output(4, height, width * slices);
        generator.compute(source.get(), target.get());
        expect_matches(read_back(*target), want);
    }

private:
    static void decode(const Head& head, double high, std::vector<double>& pixel,
                       std::vector<double>& errors) {
        // An exponential of x is off by 3 + 2 |x| units of the last place, a division by 2.5, a sum
        // of n by n.
        const double exponential = 3.0 + 2.0 * 2.0 * high;
        for (int a = 0; a < head.anchors; ++a) {
            const auto first = static_cast<size_t>(a * (head.coords + head.classes + 1));
            for (const size_t k : {first, first + 1, first + 4}) {
                pixel[k] = 1.0 / (1.0 + std::exp(-pixel[k]));
                errors[k] = std::ldexp(pixel[k] * (exponential + 4.0), -23);
            }
            const size_t scores = first + static_cast<size_t>(head.coords) + 1;
            double sum = 0.0;
            for (int k = 0; k < head.classes; ++k)
                sum += std::exp(pixel[scores + static_cast<size_t>(k)]);
            for (int k = 0; k < head.classes; ++k) {
                double& value = pixel[scores + static_cast<size_t>(k)];
                value = std::exp(value) / sum;
                errors[scores + static_cast<size_t>(k)] =
                    std::ldexp(value * (2 * exponential + head.classes + 3), -23);
            }
        }
    }
};

TEST_F(Region, DecodesEachAnchorAndLaysTheSlicesSideBySide) {
    expect_right({5, 4, 6}, 11, 11);
    expect_right({1, 4, 1}, 3, 3);
    expect_right({3, 4, 2}, 1, 1);
    expect_right({2, 6, 5}, 9, 5);
}

TEST_F(Region, ClassValuesBeyondTheRangeOfTheExponentialStayFinite) {
    ZQLayerInfo_Region record;
    const Head head = {1, 4, 3};
    fill(record, head, 1, 1);
    Tricks_Region2D generator(&manager);
    generator.setup(&record);
    Tensor input(8, 1, 1);
    for (int c = 5; c < 8; ++c) input.at(c, 0, 0) = 200.0;
    const auto source = upload(input);
    const auto target = make_output(4, 1, 2);
    generator.compute(source.get(), target.get());
    const Tensor stored = read_back(*target);
    for (int c = 1; c < 4; ++c) EXPECT_NEAR(stored.at(c, 0, 1), 1.0 / 3.0, std::ldexp(1.0, -11));
}

TEST_F(Region, AHeadOfFewerThanFourCoordinatesStaysInsideItsValues) {
    // Value 4 of the last anchor lies behind all values: it is left alone.
    ZQLayerInfo_Region record;
    const Head head = {4, 0, 0};
    fill(record, head, 2, 2);
    Tricks_Region2D generator(&manager);
    generator.setup(&record);
    const auto source = upload(random_halves(4, 2, 2, 1));
    const auto target = make_output(4, 2, 2);
    generator.compute(source.get(), target.get());
    EXPECT_FALSE(std::isnan(read_back(*target).at(0, 0, 0)));
}

TEST_F(Region, FortyByFortyPixelsAreMoreThanAGroupMayHaveAndDoNotLink) {
    ASSERT_LT(manager.maxComputeWorkGroupInvocations, 1600);
    ZQLayerInfo_Region record;
    fill(record, {1, 4, 1}, 40, 40);
    LogRecorder log;
    Tricks_Region2D generator(&manager);
    generator.setup(&record);
    EXPECT_TRUE(
        manager.IsExistComputeProgram("format_region2d_image_40x40x8_in_4_out_para_1_1_4_program"));
    const auto source = upload(Tensor(6, 40, 40));
    const auto target = make_output(4, 40, 80);
    generator.compute(source.get(), target.get());
    EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
    EXPECT_EQ(lines_with(log, "layer: expected a program that links, found none; not dispatched"),
              1u);
}

TEST_F(Region, NumbersWithoutRoomAreRefused) {
    ZQLayerInfo_Region record;
    record.id = 8;
    record.region_a = record.region_b = record.region_c = 65535;
    LogRecorder log;
    Tricks_Region2D(&manager).setup(&record);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text,
              "layer 8 (Region): expected at most 8192 values of a pixel, found 8589737985");
}

struct ShapeTexts : ::testing::Test {
    tesk::ComputeProgramManager manager{0, "test"};
};

TEST_F(ShapeTexts, RegionNameAndPieces) {
    Tricks_Region2D region(&manager);
    EXPECT_EQ(region.programName(11, 11, 14, 5, 6, 4),
              "format_region2d_image_11x11x56_in_4_out_para_5_6_4_program");
    tesk::TricksParams params;
    params.localSizeX = 13;
    params.localSizeY = 7;
    const std::string source = region.generateSource(params, 14);
    for (const char* const piece :
         {"layout(local_size_x = 13, local_size_y = 7, local_size_z = 1) in;",
          "layout(rgba16f, binding = 0) readonly uniform highp image2DArray src;",
          "layout(rgba16f, binding = 1) writeonly uniform highp image2D dst;",
          "uniform int anchor_num;", "uniform int class_num;", "uniform int coord_num;",
          "float data[56];"}) {
        EXPECT_TRUE(contains(source, piece)) << piece << "\nis not in\n" << source;
    }
    EXPECT_LT(source.size(), 2694u);
}

// Reshape.

class Reshape : public GpuTest {
protected:
    void expect_right(int channels, int height, int width, const std::vector<int>& in_dims) {
        SCOPED_TRACE(std::to_string(channels) + " channels, " + std::to_string(width) + "x" +
                     std::to_string(height) + ", rank " + std::to_string(in_dims.size()));
        ZQLayerInfo_TensorReshape record;
        const int elements = channels * height * width;
        record.in_tensors[0] = absolute_shape(in_dims);
        record.out_tensor = absolute_shape({1, elements});
        Tricks_TensorReshape generator(&manager);
        generator.setup(&record);
        const Tensor input = random_halves(channels, height, width, 43);
        Tensor want(elements, 1, 1);
        want.values = input.values;
        const auto source = upload(input);
        const auto target = make_output(elements, 1, 1);
        generator.compute(source.get(), target.get());
        expect_equals(read_back(*target), want);
    }
};

TEST_F(Reshape, FlattensPlaneAfterPlane) {
    for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
        expect_right(channels, 3, 5, {1, channels, 3, 5});
        expect_right(channels, 9, 8, {channels, 9, 8});
    }
    expect_right(7, 1, 1, {1, 7, 1, 1});
    expect_right(7, 1, 1, {1, 7});
    expect_right(2, 1, 1, {1, 2});
}

TEST_F(Reshape, WhatTheOutputHasBeyondTheTensorIsThePaddingThenZeros) {
    ZQLayerInfo_TensorReshape record;
    record.in_tensors[0] = absolute_shape({1, 6, 1, 1});
    record.out_tensor = absolute_shape({1, 16});
    Tricks_TensorReshape generator(&manager);
    generator.setup(&record);
    const Tensor input = random_halves(6, 1, 1, 43);
    const auto source = upload(input, GL_RGBA16F, 7.0f);
    const auto target = make_output(16, 1, 1);
    generator.compute(source.get(), target.get());
    const Tensor stored = read_back(*target);
    for (int c = 0; c < 16; ++c)
        EXPECT_EQ(stored.at(c, 0, 0), c < 6 ? input.at(c, 0, 0) : c < 8 ? 7.0 : 0.0) << c;
}

TEST_F(Reshape, AnInputWithoutPixelsOrTooLargeIsRefused) {
    ZQLayerInfo_TensorReshape record;
    record.id = 3;
    record.out_tensor = absolute_shape({1, 16});
    LogRecorder log;
    record.in_tensors[0] = absolute_shape({1, 6, 0, 4});
    Tricks_TensorReshape empty(&manager);
    empty.setup(&record);
    record.in_tensors[0] = absolute_shape({1, 65535, 65535, 65535});
    Tricks_TensorReshape huge(&manager);
    huge.setup(&record);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[0].text,
              "layer 3 (TensorReshape): expected an input of 1 to 2147483647 "
              "bytes, found 6 x 0 x 4 (channels, height, width)");
    EXPECT_EQ(log.lines[1].text,
              "layer 3 (TensorReshape): expected an input of 1 to 2147483647 bytes, found 65535 x "
              "65535 x 65535 (channels, height, width)");
    EXPECT_EQ(manager.programCount(), 0);
}

// Squeeze.

class Squeeze : public GpuTest {
protected:
    void expect_copy(int channels, int height, int width) {
        ZQLayerInfo_TensorSqueeze record;
        record.in_tensors[0] = absolute_shape({1, channels, height, width});
        record.out_tensor = absolute_shape({channels, height, width});
        Tricks_TensorSqueeze generator(&manager);
        generator.setup(&record);
        const Tensor input = random_halves(channels, height, width, 47);
        const auto source = upload(input);
        const auto target = make_output(channels, height, width);
        generator.compute(source.get(), target.get());
        expect_equals(read_back(*target), input);
    }
};

TEST_F(Squeeze, CopiesUpToFourChannels) {
    for (int channels = 1; channels <= 4; ++channels) expect_copy(channels, 9, 17);
    expect_copy(3, 1, 1);
    expect_copy(3, 17, 8);
}

TEST_F(Squeeze, TheLongerSideLiesAlongTheLongerSideOfTheNet) {
    // The record says 9 rows of 33 columns; the net is upright, and so are its images.
    manager.netWidth = 128;
    ZQLayerInfo_TensorSqueeze record;
    record.in_tensors[0] = absolute_shape({1, 2, 9, 33});
    record.out_tensor = absolute_shape({2, 9, 33});
    Tricks_TensorSqueeze generator(&manager);
    generator.setup(&record);
    const Tensor input = random_halves(2, 33, 9, 47);
    const auto source = upload(input);
    const auto target = make_output(2, 33, 9);
    generator.compute(source.get(), target.get());
    expect_equals(read_back(*target), input);
}

TEST_F(Squeeze, FiveChannelsAndAnotherAxisFailTheirAssertions) {
    AssertRecorder assertions;
    ZQLayerInfo_TensorSqueeze record;
    record.in_tensors[0] = absolute_shape({1, 5, 4, 4});
    record.out_tensor = absolute_shape({5, 4, 4});
    Tricks_TensorSqueeze five(&manager);
    five.setup(&record);
    EXPECT_EQ(assertions.count("inchannels <= 4"), 1u);
    EXPECT_EQ(assertions.count("squeeze_dim == 0"), 0u);
    record.in_tensors[0] = absolute_shape({1, 4, 4, 4});
    record.axis = 2;
    Tricks_TensorSqueeze inner(&manager);
    inner.setup(&record);
    EXPECT_EQ(assertions.count("squeeze_dim == 0"), 1u);
    EXPECT_EQ(assertions.count(), 2u);
    EXPECT_EQ(manager.programCount(), 0);

    const auto source = upload(random_halves(4, 4, 4, 1));
    const auto target = make_output(4, 4, 4);
    LogRecorder log;
    inner.compute(source.get(), target.get());
    EXPECT_EQ(log.lines.size(), 1u);
    EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
}

TEST_F(Squeeze, TheProgramOfThatNameInTheCatalogueServes) {
    manager.initProgramBinary({}, &manager);
    const int programs = manager.programCount();
    expect_copy(3, 9, 17);
    EXPECT_EQ(manager.programCount(), programs);
}

TEST_F(ShapeTexts, SqueezeHasOneLiteralSource) {
    Tricks_TensorSqueeze squeeze(&manager);
    const std::string source = squeeze.generateSource();
    EXPECT_TRUE(contains(source, "vec4 srcValue = imageLoad(src, pos);"));
    EXPECT_TRUE(
        contains(source, "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;"));
}

// Full connection.

struct FullLayer {
    ZQLayerInfo_FullConnection record;
    std::vector<double> weights;
    std::vector<double> bias;

    FullLayer(int inputs, int outputs, bool has_bias, unsigned int seed = 53) {
        weights = random_half_list(static_cast<size_t>(inputs * outputs), seed);
        bias = random_half_list(static_cast<size_t>(outputs), seed + 1);
        record.id = 7;
        record.num_input = static_cast<unsigned short>(inputs);
        record.num_output = static_cast<unsigned short>(outputs);
        record.has_bias = has_bias ? 1 : 0;
        record.in_tensors[0] = absolute_shape({1, inputs});
        record.out_tensor = absolute_shape({1, outputs});
        EXPECT_TRUE(modelkit::assign_weights(record, half_patterns(weights)));
        if (has_bias) {
            EXPECT_TRUE(modelkit::assign_bias(record, half_patterns(bias)));
        }
    }
};

class FullConnection : public GpuTest {
protected:
    void expect_right(int inputs, int outputs, bool has_bias) {
        SCOPED_TRACE(std::to_string(inputs) + " inputs, " + std::to_string(outputs) +
                     " outputs, bias " + std::to_string(has_bias));
        FullLayer layer(inputs, outputs, has_bias);
        Tricks_FullConnection generator(&manager);
        generator.setup(&layer.record);
        const Tensor input = random_halves(inputs, 1, 1, 59);
        // Rows of the weights are read at the length of whole slices: what lies behind them is the
        // row that follows, and zeros behind the last.
        const int row = (inputs + 3) / 4 * 4;
        Reference want(outputs, 1, 1);
        for (int o = 0; o < outputs; ++o) {
            double sum = has_bias ? layer.bias[static_cast<size_t>(o)] : 0.0;
            double magnitude = std::fabs(sum);
            for (int i = 0; i < inputs; ++i) {
                const auto at = static_cast<size_t>(o * row + i);
                if (at >= layer.weights.size()) continue;
                sum += layer.weights[at] * input.at(i, 0, 0);
                magnitude += std::fabs(layer.weights[at] * input.at(i, 0, 0));
            }
            want.values.at(o, 0, 0) = sum;
            want.errors.at(o, 0, 0) = sum_error(inputs + 1, magnitude);
        }
        const auto source = upload(input);
        const auto target = make_output(outputs, 1, 1);
        generator.compute(source.get(), target.get());
        expect_matches(read_back(*target), want);
    }
};

TEST_F(FullConnection, InputsThatFillTheirSlices) {
    for (const int limit : {0, 4}) {
        manager.uboSliceLimit = limit;
        for (const int inputs : {8, 12, 16, 64}) {
            for (const int outputs : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16})
                expect_right(inputs, outputs, outputs % 2 == 0);
        }
    }
    EXPECT_EQ(manager.programCount(), 3);
    for (const char* const name :
         {"fullConnected_operator_program", "fullConnected_operator_ssbo_program",
          "fullConnected_operator_ssbo_muti_in_4_out_program"}) {
        EXPECT_TRUE(manager.IsExistComputeProgram(name)) << name;
    }
}

TEST_F(FullConnection, RowsThatFillNoSlicesAreReadAtTheLengthOfWholeOnes) {
    expect_right(6, 1, true);
    expect_right(6, 5, true);
    expect_right(9, 8, false);
}

TEST_F(FullConnection, UnusableNumbersAreRefused) {
    const auto expect_refused = [&](FullLayer& layer, const std::string& line) {
        LogRecorder log;
        Tricks_FullConnection generator(&manager);
        generator.setup(&layer.record);
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, line);
        EXPECT_EQ(manager.programCount(), 0);
        const auto source = upload(random_halves(8, 1, 1, 1));
        const auto target = make_output(8, 1, 1);
        generator.compute(source.get(), target.get());
        EXPECT_TRUE(std::isnan(read_back(*target).at(0, 0, 0)));
    };
    FullLayer narrow(4, 8, true);
    expect_refused(narrow, "layer 7 (FullConnection): expected more than 4 inputs, found 4");
    FullLayer none(8, 0, false);
    expect_refused(none, "layer 7 (FullConnection): expected at least 1 output, found 0");
    FullLayer weights(8, 8, true);
    weights.record.num_input = 9;
    expect_refused(weights, "layer 7 (FullConnection): expected 72 weights, found 64");
    FullLayer bias(8, 8, false);
    bias.record.has_bias = 1;
    expect_refused(bias, "layer 7 (FullConnection): expected 8 biases, found 0");
    manager.uboSliceLimit = 4;
    FullLayer large(256, 132, true);
    expect_refused(large,
                   "layer 7 (FullConnection): expected weights of at most 65536 bytes in a uniform "
                   "block, found 67584");
    FullLayer many(8, 1025, true);
    expect_refused(many,
                   "layer 7 (FullConnection): expected at most 1024 outputs with uniform blocks, "
                   "found 1025");
}

TEST_F(FullConnection, WeightsThatFillTheUniformBlock) {
    manager.uboSliceLimit = 4;
    expect_right(256, 128, true);
    expect_right(8, 1024, true);
    manager.uboSliceLimit = 0;
    expect_right(256, 132, true);
}

TEST_F(ShapeTexts, FullConnectionNamesThatNothingIsKeptUnder) {
    Tricks_FullConnection full(&manager);
    tesk::TricksParams params;
    EXPECT_EQ(full.programName(params, "FullConnection", 1, 1, 1),
              "FullConnection_ssbo_a2_bias1_program");
    params.uboWeightCount = 1;
    params.hasBias = 0;
    EXPECT_EQ(full.programName(params, "FullConnection", 1, 1, 1),
              "FullConnection_ubo_a2_bias0_program");
}

TEST_F(ShapeTexts, RecordsOfAnotherKindAreRefused) {
    ZQLayerInfo_Pooling record;
    record.id = 1;
    LogRecorder log;
    Tricks_Region2D(&manager).setup(&record);
    Tricks_TensorReshape(&manager).setup(&record);
    Tricks_TensorSqueeze(&manager).setup(&record);
    Tricks_FullConnection(&manager).setup(&record);
    ASSERT_EQ(log.lines.size(), 4u);
    size_t line = 0;
    for (const char* const kind : {"Region", "TensorReshape", "TensorSqueeze", "FullConnection"}) {
        EXPECT_EQ(log.lines[line++].text, std::string("layer 1 (Pooling): expected a record of ") +
                                              kind + ", found Pooling");
    }
}

TEST_F(ShapeTexts, PrintsNameTheLayer) {
    LogRecorder log;
    Tricks_Region2D(&manager).print();
    Tricks_TensorReshape(&manager).print();
    Tricks_TensorSqueeze(&manager).print();
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0].text, "I am Tricks_Region2D.");
    EXPECT_EQ(log.lines[1].text, "reshape layer");
    EXPECT_EQ(log.lines[2].text, "squeeze layer");
}

}  // namespace
