// Which generator an operator gets, its debug texts, and the ways its run treats its images.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/layers/create_operator.h"
#include "gpu/opengl/glcnn/src/tesk/layers/elementwiseoperator.h"
#include "gpu/opengl/glcnn/src/tesk/operator.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_activation.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_concat.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_1x1.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_kxk.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3_4pointsout.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_5x5.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_elementwise_operator.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_fullconnection.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_group_conv2d_3x3_basic.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pixelshuffle.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pooling.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_region2d.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorreshape.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorsqueeze.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_transpose_conv2d.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling_nearest.h"
#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using modelkit::NetBuilder;
using modelkit::Window;
using testing_support::AssertRecorder;
using testing_support::GpuTest;
using testing_support::LogRecorder;

class Operators : public GpuTest {
protected:
    static constexpr int side = 16;

    void SetUp() override {
        GpuTest::SetUp();
        manager.netWidth = side;
        manager.netHeight = side;
    }

    static NetBuilder builder() {
        modelkit::ModelHeader header;
        header.base_w = side;
        header.base_h = side;
        return NetBuilder(header);
    }

    /// An operator of that code, set up with the builder's last layer.
    std::shared_ptr<tesk::Operator> made(int code, NetBuilder& net) {
        const auto op = tesk::createOperator(code, &manager);
        op->setup(net.record(net.count() - 1));
        return op;
    }

    template <typename Generator>
    static void expect_generator(const std::shared_ptr<tesk::Operator>& op) {
        EXPECT_TRUE(op->isSetUp());
        EXPECT_NE(dynamic_cast<const Generator*>(op->generator()), nullptr)
            << "an operator of type " << op->type();
    }

    template <typename ConstantIndex, typename Basic>
    void expect_by_mode(int code, int w, int h) {
        NetBuilder net = builder();
        const Window window = {w, h, w / 2, h / 2};
        net.conv(net.input(4), 8, window);
        for (const int mode : {0, 1, 3, 4}) {
            manager.tricksMode = mode;
            if (mode == 0) {
                expect_generator<ConstantIndex>(made(code, net));
            } else {
                expect_generator<Basic>(made(code, net));
            }
        }
    }

    /// A 1x1 convolution of a net of that base size.
    std::shared_ptr<tesk::Operator> pointwise(int w, int h, int out) {
        manager.netWidth = w;
        manager.netHeight = h;
        modelkit::ModelHeader header;
        header.base_w = static_cast<unsigned int>(w);
        header.base_h = static_cast<unsigned int>(h);
        NetBuilder net(header);
        net.conv(net.input(4), out, 1, 1, 0);
        return made(0, net);
    }
};

// Generators --------------------------------------------------------------------------------------

TEST_F(Operators, KernelsOtherThan3x3And4x4GoByTheModeAlone) {
    using namespace tesk;
    expect_by_mode<Tricks_Conv2d_1x3_CI, Tricks_Conv2d_1x3_Basic>(1, 3, 1);
    expect_by_mode<Tricks_Conv2d_3x1_CI, Tricks_Conv2d_3x1_Basic>(2, 1, 3);
    expect_by_mode<Tricks_Conv2d_1x5_CI, Tricks_Conv2d_1x5_Basic>(5, 5, 1);
    expect_by_mode<Tricks_Conv2d_5x1_CI, Tricks_Conv2d_5x1_Basic>(6, 1, 5);
    expect_by_mode<Tricks_Conv2d_5x5_CI, Tricks_Conv2d_5x5_Basic>(7, 5, 5);
    expect_by_mode<Tricks_Conv2d_1x7_CI, Tricks_Conv2d_1x7_Basic>(8, 7, 1);
    expect_by_mode<Tricks_Conv2d_7x1_CI, Tricks_Conv2d_7x1_Basic>(9, 1, 7);
}

TEST_F(Operators, A3x3AlsoWantsOutputChannelsInFours) {
    expect_by_mode<tesk::Tricks_Conv2d_3x3_CI, tesk::Tricks_Conv2d_3x3_Basic>(3, 3, 3);
    manager.tricksMode = 0;
    NetBuilder net = builder();
    net.conv(net.input(4), 6, 3, 1, 1);
    expect_generator<tesk::Tricks_Conv2d_3x3_Basic>(made(3, net));
}

TEST_F(Operators, A4x4IsBasicAtEveryMode) {
    NetBuilder net = builder();
    net.conv(net.input(4), 8, 4, 2, 1);
    for (const int mode : {0, 4}) {
        manager.tricksMode = mode;
        expect_generator<tesk::Tricks_Conv2d_4x4_Basic>(made(4, net));
    }
}

TEST_F(Operators, PointwiseGoesByModeOutputSizeAndChannels) {
    using namespace tesk;
    manager.tricksMode = 4;
    expect_generator<Tricks_Conv2d_1x1_Basic>(pointwise(16, 16, 8));
    expect_generator<Tricks_Conv2d_1x1_Basic>(pointwise(1, 1, 8));
    manager.tricksMode = 0;
    expect_generator<Tricks_Conv2d_1x1_4Points_2Slice>(pointwise(16, 16, 5));
    expect_generator<Tricks_Conv2d_1x1_4PointsOut>(pointwise(16, 16, 4));
    expect_generator<Tricks_Conv2d_1x1_4PointsOut>(pointwise(2, 2, 1));
    expect_generator<Tricks_Conv2d_1x1_Basic>(pointwise(1, 1, 8));
    expect_generator<Tricks_Conv2d_1x1_Basic>(pointwise(1, 16, 8));
    expect_generator<Tricks_Conv2d_1x1_Basic>(pointwise(16, 1, 8));
}

TEST_F(Operators, TransposedConvolutionsAreBasicAtEveryMode) {
    for (const int mode : {0, 4}) {
        manager.tricksMode = mode;
        const auto transposed = [&](int code, int w, int h) {
            NetBuilder net = builder();
            Window window = {w, h, 1, h / 2};
            window.stride_w = window.stride_h = 2;
            net.deconvolution(net.input(4), 8, window);
            return made(code, net);
        };
        expect_generator<tesk::Tricks_Transpose_Conv2d_3x3_Basic>(transposed(11, 3, 3));
        expect_generator<tesk::Tricks_Transpose_Conv2d_2x2_Basic>(transposed(12, 2, 2));
        expect_generator<tesk::Tricks_Transpose_Conv2d_1x7_Basic>(transposed(13, 7, 1));
    }
}

TEST_F(Operators, DepthwiseTakesFourPointsWhereBothStridesAre1) {
    const auto depthwise = [&](int code, int kernel, int stride_w, int stride_h) {
        NetBuilder net = builder();
        Window window = Window::square(kernel, 1, kernel / 2);
        window.stride_w = stride_w;
        window.stride_h = stride_h;
        net.depthwise(net.input(8), window);
        return made(code, net);
    };
    expect_generator<tesk::Tricks_Depthwise_conv2d_3x3_4PointsOut>(depthwise(14, 3, 1, 1));
    expect_generator<tesk::Tricks_Depthwise_Conv2d_3x3>(depthwise(14, 3, 1, 2));
    expect_generator<tesk::Tricks_Depthwise_Conv2d_3x3>(depthwise(14, 3, 2, 1));
    expect_generator<tesk::Tricks_Depthwise_Conv2d_3x3>(depthwise(14, 3, 2, 2));
    expect_generator<tesk::Tricks_Depthwise_Conv2d_5x5>(depthwise(15, 5, 1, 1));
}

TEST_F(Operators, GroupsHaveOneGenerator) {
    NetBuilder net = builder();
    net.conv(net.input(8), 8, Window::square(3, 1, 1), 0, 2);
    expect_generator<tesk::Tricks_Group_Conv2d_3x3_Basic>(made(10, net));
}

TEST_F(Operators, PoolingGoesByItsType) {
    for (const int type : {0, 1}) {
        NetBuilder net = builder();
        net.pooling(net.input(8), type, 2, 2);
        if (type == 1) {
            expect_generator<tesk::Tricks_Pooling_Max>(made(17, net));
        } else {
            expect_generator<tesk::Tricks_Pooling_Avg>(made(17, net));
        }
    }
}

TEST_F(Operators, ElementWiseGoesByItsOperationAndStoresIt) {
    for (const int operation : {0, 2}) {
        NetBuilder net = builder();
        const int in = net.input(8);
        net.eltwise({in, in}, operation);
        const auto op = made(18, net);
        EXPECT_EQ(static_cast<tesk::ElementWiseOperator&>(*op).operation(), operation);
        if (operation == 0) {
            expect_generator<tesk::Tricks_ElementWise_Add>(op);
        } else {
            expect_generator<tesk::Tricks_ElementWise_Mul>(op);
        }
    }
}

TEST_F(Operators, PixelShuffleGoesUpFromAFactorOf1) {
    NetBuilder up = builder();
    up.pixel_shuffle(up.input(4), 2.0);
    expect_generator<tesk::Tricks_PixelShuffle_UpSampling>(made(22, up));
    static_cast<ZQLayerInfo_PixelShuffle*>(up.record(1))->upscale_factor = 0x3c00;  // 1
    expect_generator<tesk::Tricks_PixelShuffle_UpSampling>(made(22, up));
    NetBuilder down = builder();
    down.pixel_shuffle(down.input(4), 0.5);
    expect_generator<tesk::Tricks_PixelShuffle_DownSampling>(made(22, down));
}

TEST_F(Operators, UpsamplingIsNearestForMode0Alone) {
    for (const int mode : {0, 1, 2}) {
        NetBuilder net = builder();
        net.upsampling(net.input(8), 2, mode == 0 ? 0 : 1);
        static_cast<ZQLayerInfo_Upsampling*>(net.record(1))->mode =
            static_cast<unsigned short>(mode);
        if (mode == 0) {
            expect_generator<tesk::Tricks_UpSampling_Nearest>(made(25, net));
        } else {
            expect_generator<tesk::Tricks_UpSampling>(made(25, net));
        }
    }
}

TEST_F(Operators, TheOthersHaveOneGeneratorEach) {
    manager.initProgramBinary(tesk::BinFileInfo{}, &manager);
    {
        NetBuilder net = builder();
        const int in = net.input(8);
        net.concat({in, in});
        expect_generator<tesk::Tricks_Concat>(made(19, net));
    }
    {
        NetBuilder net = builder();
        net.region(net.input(22, 0.25, 0.25), 2, 4, 6);
        expect_generator<tesk::Tricks_Region2D>(made(21, net));
    }
    {
        NetBuilder net = builder();
        net.reshape(net.tensor_input({8, 1, 1}), {1, 8});
        expect_generator<tesk::Tricks_TensorReshape>(made(23, net));
    }
    {
        NetBuilder net = builder();
        net.squeeze(net.tensor_input({4, 4}), 0, {4, 8, 2});
        expect_generator<tesk::Tricks_TensorSqueeze>(made(24, net));
    }
    {
        NetBuilder net = builder();
        net.activation(net.input(8), ActivationType_ReLU);
        expect_generator<tesk::Tricks_Activation>(made(26, net));
    }
    {
        NetBuilder net = builder();
        net.fully_connected(net.tensor_input({1, 8}), 8, 8);
        expect_generator<tesk::Tricks_FullConnection>(made(27, net));
    }
}

TEST_F(Operators, TheTransposedDepthwiseStoresItsIdAndHasNoGenerator) {
    NetBuilder net = builder();
    net.depthwise_deconvolution(net.input(8), 3, 2, 1);
    const auto op = made(16, net);
    EXPECT_TRUE(op->isSetUp());
    EXPECT_EQ(op->id(), 1);
    EXPECT_EQ(op->generator(), nullptr);
}

TEST_F(Operators, ARecordOfAnotherKindOrNoneIsRefusedWithOneLine) {
    NetBuilder net = builder();
    net.activation(net.input(8), ActivationType_ReLU);
    for (int code = 0; code <= 27; ++code) {
        if (code == 20 || code == 26) continue;
        const auto op = tesk::createOperator(code, &manager);
        const LogRecorder log;
        op->setup(net.record(1));
        EXPECT_FALSE(op->isSetUp()) << code;
        EXPECT_EQ(op->generator(), nullptr) << code;
        EXPECT_EQ(log.lines.size(), 1u) << code;
        op->setup(nullptr);
        EXPECT_FALSE(op->isSetUp()) << code;
        EXPECT_EQ(log.lines.size(), 2u) << code;
    }
}

// createOperator ----------------------------------------------------------------------------------

TEST_F(Operators, EachCodeMakesAnOperatorOfItsCodeAnd20MakesNone) {
    for (int code = 0; code <= 28; ++code) {
        const auto op = tesk::createOperator(code, &manager);
        if (code == 20) {
            EXPECT_EQ(op, nullptr);
            continue;
        }
        ASSERT_NE(op, nullptr) << code;
        EXPECT_EQ(op->type(), code);
        const LogRecorder log;
        op->print();
        EXPECT_TRUE(log.lines.empty()) << "print is empty";
    }
}

using OperatorsDeathTest = Operators;

TEST_F(OperatorsDeathTest, ACodeAbove28EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(tesk::createOperator(29, &manager), testing::ExitedWithCode(1), "unknow type!");
    EXPECT_EXIT(tesk::createOperator(-1, &manager), testing::ExitedWithCode(1), "unknow type!");
}

TEST_F(OperatorsDeathTest, TheNameOfACodeAbove26EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(tesk::createOperator(27, &manager)->printName(), testing::ExitedWithCode(1),
                "unknow type!");
    EXPECT_EXIT(tesk::createOperator(28, &manager)->printName(), testing::ExitedWithCode(1),
                "unknow type!");
}

// Debug texts -------------------------------------------------------------------------------------

struct Texts {
    int code;
    const char* name;
    const char* time;
    const char* dump;
};

// For layer 0, the start value of the id.
const Texts texts[] = {
    {0, "_0_conv2d_1x1", "conv2D_1x1", "_0_conv2d_1x1_.txt"},
    {1, "_0_conv2d_1x3", "conv2D_1x3", "_0_conv2d_1x3_.txt"},
    {2, "_0_conv2d_3x1", "conv2D_3x1", "_0_conv2d_3x1_.txt"},
    {3, "_0_conv2d_3x3", "conv2D_3x3", "_0_conv2d_3x3_.txt"},
    {4, "", nullptr, "_0_conv2d_4x4_.txt"},
    {5, "_0_conv2d_1x5", "conv2D_1x5", "_0_conv2d_1x5_.txt"},
    {6, "_0_conv2d_5x1", "conv2D_5x1", "_0_conv2d_5x1_.txt"},
    {7, "_0_conv2d_5x5", "conv2D_5x5", "_0_conv2d_5x5_.txt"},
    {8, "_0_conv2d_1x7", "conv2D_1x7", "_0_conv2d_1x7_.txt"},
    {9, "_0_conv2d_7x1", "conv2D_7x1", "_0_conv2d_7x1_.txt"},
    {10, "_0_group_conv2d_3x3", "group_conv2D_3x3", "_0_group_conv2d_3x3_.txt"},
    {11, "_0_transpose_conv2d_3x3", "transpose_conv2D_3x3", "_0_transpose_conv2d_3x3_.txt"},
    {12, "_0_transpose_conv2d_2x2", "transpose_conv2D_2x2", "_0_transpose_conv2d_2x2_.txt"},
    {13, "_0_transpose_conv2d_1x7", nullptr, "_0_transpose_conv2d_1x7_.txt"},
    {14, "_0_depthwise_conv2d_3x3", "depthwise_conv2D_3x3", "_0_depthwise_conv2d_3x3.txt"},
    {15, "", nullptr, "_0_depthwise_conv2d_5x5.txt"},
    {16, "_depthwise_transpose_conv2d_3x3", "depthwise_transpose_conv2D_3x3",
     "_0_depthwise_transpose_conv2d_3x3.txt"},
    {17, "_0_pooling", "pooling", "_0_pooling_.txt"},
    {18, "_elementwise_operator", "elementwise_operator", "_0_elementwise_operator_.txt"},
    {19, "_0_concat", "concat", "_0_concat_.txt"},
    {20, "_0_trimap", nullptr, "_0_trimap_.txt"},
    {21, "_0_region", "region", "_0_region_.txt"},
    {22, "_0_pixelshuffle", "pixelshuffle", "_0_pixelshuffle_.txt"},
    {23, "", nullptr, "_0_tensor_reshape_.txt"},
    {24, "", nullptr, "_0_squeeze_.txt"},
    {25, "_0_upsampling", "upsampling", "_0_upsampling_.txt"},
    {26, "_0_activation", "activation", "_0_activation_.txt"},
    {27, nullptr, "full_connection", "_0_fullConnection_.txt"},
    {28, nullptr, "benchmark_single_layer", nullptr},
};

TEST_F(Operators, DebugTextsAreThoseOfTheTypeCode) {
    for (const Texts& row : texts) {
        SCOPED_TRACE(row.code);
        tesk::Operator op(row.code, &manager);
        {
            const LogRecorder log;
            if (row.name != nullptr) {
                op.printName();
                ASSERT_EQ(log.lines.size(), 1u);
                EXPECT_EQ(log.lines[0].text, std::string(row.name) + " : \n\n");
            }
        }
        {
            const LogRecorder log;
            op.printTime(3, 250);
            ASSERT_EQ(log.lines.size(), 1u);
            if (row.time != nullptr) {
                EXPECT_EQ(log.lines[0].text,
                          "3 'th layer: " + std::string(row.time) + " : 250 us \n");
                EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose);
            } else {
                EXPECT_EQ(log.lines[0].text, "unknow type!");
            }
        }
        const std::string folder = "D:\\debug\\hairseg\\";
        EXPECT_EQ(op.dumpFileName(), row.dump != nullptr ? folder + row.dump : "");
    }
}

TEST_F(Operators, TheTwoSwitchesSilenceDumpAndName) {
    NetBuilder net = builder();
    net.conv(net.input(8), 8, 3, 1, 1);
    const auto op = made(3, net);
    EXPECT_EQ(op->dumpFileName(), "D:\\debug\\hairseg\\_1_conv2d_3x3_.txt");
    op->setDebugSwitches(true, true);
    EXPECT_EQ(op->dumpFileName(), "");
    const LogRecorder log;
    op->printName();
    EXPECT_TRUE(log.lines.empty());
}

// Runs --------------------------------------------------------------------------------------------

TEST_F(Operators, OneToOneWantsAsManyOutputsAsInputs) {
    NetBuilder net = builder();
    net.activation(net.input(8), ActivationType_ReLU);
    const auto op = made(26, net);
    tesk::Operator::Images inputs = {make_image(8, side, side)};
    tesk::Operator::Images outputs;
    inputs[0]->addReadCount();
    const AssertRecorder asserts;
    op->forward(inputs, outputs);
    EXPECT_EQ(asserts.count("inputs.size() == outputs.size()"), 1u);
    EXPECT_EQ(inputs[0]->readCount(), 1) << "nothing ran";
}

TEST_F(Operators, OneToOneRunsEveryPair) {
    NetBuilder net = builder();
    net.activation(net.input(8), ActivationType_ReLU);
    const auto op = made(26, net);
    const auto a = testing_support::random_halves(8, side, side, 1);
    const auto b = testing_support::random_halves(8, side, side, 2);
    tesk::Operator::Images inputs = {upload(a), upload(b)};
    tesk::Operator::Images outputs = {make_output(8, side, side), make_output(8, side, side)};
    op->forward(inputs, outputs);
    for (const auto& input : inputs) EXPECT_EQ(input->readCount(), 0);
    const auto out_a = read_back(*outputs[0]);
    const auto out_b = read_back(*outputs[1]);
    for (size_t i = 0; i < a.values.size(); ++i) {
        ASSERT_EQ(out_a.values[i], std::max(a.values[i], 0.0));
        ASSERT_EQ(out_b.values[i], std::max(b.values[i], 0.0));
    }
}

TEST_F(Operators, ElementWiseWantsTwoOrThreeInputsForEachOutput) {
    NetBuilder net = builder();
    const int in = net.input(8);
    net.eltwise({in, in});
    const auto op = made(18, net);
    const AssertRecorder asserts;
    for (const size_t count : {size_t{0}, size_t{1}, size_t{4}}) {
        tesk::Operator::Images inputs;
        for (size_t i = 0; i < count; ++i) inputs.push_back(make_image(8, side, side));
        tesk::Operator::Images outputs = {make_image(8, side, side)};
        op->forward(inputs, outputs);
    }
    EXPECT_EQ(
        asserts.count("inputs.size() == outputs.size() * 2 || inputs.size() == outputs.size() * 3"),
        3u);
}

TEST_F(Operators, ConcatOfFourLogsAtEachRunAndDispatchesNothing) {
    NetBuilder net = builder();
    const int in = net.input(8);
    net.concat({in, in, in, in});
    const auto op = tesk::createOperator(19, &manager);
    {
        const LogRecorder log;
        op->setup(net.record(1));
    }
    tesk::Operator::Images inputs(4, upload(testing_support::random_halves(8, side, side, 1)));
    tesk::Operator::Images outputs = {make_image(32, side, side)};
    for (int run = 0; run < 2; ++run) {
        const LogRecorder log;
        op->forward(inputs, outputs);
        const auto said = std::count_if(log.lines.begin(), log.lines.end(), [](const auto& line) {
            return line.text == "concat only support 2_input and 3+1+1 and 3_input and 5_input";
        });
        EXPECT_EQ(said, 1);
        EXPECT_EQ(outputs[0]->textureId(), 0u);
    }
}

}  // namespace
