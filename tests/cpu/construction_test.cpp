// From records to layers, blobs and operators.
#include <gtest/gtest.h>
#include <tarno/model.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>

#include "modelkit/net_builder.h"
#include "support/built_nets.h"
#include "support/recorders.h"
#include "support/temporary_file.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;
using modelkit::ModelHeader;
using modelkit::NetBuilder;
using modelkit::Window;

TEST(Construction, AFusedActivationIsALayerOfTheSameIdWithABlobBetween) {
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    builder.conv(in, 8, 3, 1, 1, ActivationType_ReLU);
    const auto net = net_of(builder);
    ASSERT_EQ(3u, net->layers.size());
    const Layer* main = net->layers[1];
    const Layer* activation = net->layers[2];
    EXPECT_EQ(1, main->id);
    EXPECT_EQ(1, activation->id);
    EXPECT_EQ("Convolution3x3s1x1", main->type);
    EXPECT_EQ("ReLU", activation->type);
    EXPECT_FALSE(main->support_inplace);
    EXPECT_TRUE(activation->support_inplace);
    ASSERT_EQ(3u, net->blobs.size());
    EXPECT_EQ((std::vector<int>{0}), main->bottoms);
    EXPECT_EQ((std::vector<int>{2}), main->tops);
    EXPECT_EQ((std::vector<int>{2}), activation->bottoms);
    EXPECT_EQ((std::vector<int>{1}), activation->tops);
    EXPECT_EQ((std::vector<int>{1}), net->blobs[0].consumers);
    EXPECT_EQ(1, net->blobs[2].producer);
    EXPECT_EQ((std::vector<int>{2}), net->blobs[2].consumers);
    EXPECT_TRUE(net->blobs[1].consumers.empty());
}

TEST(Construction, TheProducerOfAFusedLayersBlobIsTheActivation) {
    NetBuilder builder(small_header());
    builder.conv(builder.input(4), 8, 3, 1, 1, ActivationType_ReLU);
    EXPECT_EQ(2, net_of(builder)->blobs[1].producer);
}

TEST(Construction, AnInputReadsAndWritesItsOwnBlobAndHasNoConsumerEntry) {
    NetBuilder builder(small_header());
    builder.input(3);
    const auto net = net_of(builder);
    ASSERT_EQ(1u, net->layers.size());
    EXPECT_EQ("Input", net->layers[0]->type);
    EXPECT_EQ((std::vector<int>{0}), net->layers[0]->bottoms);
    EXPECT_EQ((std::vector<int>{0}), net->layers[0]->tops);
    EXPECT_TRUE(net->blobs[0].consumers.empty());
    EXPECT_EQ(0, net->blobs[0].producer);
    EXPECT_EQ((std::map<int, int>{{0, 0}}), net->input_blobs);
}

TEST(Construction, BlobsAreNumberedByLayerIdUpToTheHighest) {
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    builder.activation(in, ActivationType_ReLU);
    builder.record(1)->id = 7;
    const auto net = net_of(builder);
    ASSERT_EQ(8u, net->blobs.size());
    EXPECT_EQ(1, net->blobs[7].producer);
    EXPECT_EQ(-1, net->blobs[3].producer);
    EXPECT_EQ((std::vector<int>{1}), net->blobs[0].consumers);
}

TEST(Construction, DisplayNamesCarryKernelAndStride) {
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    builder.conv(in, 4, 3, 2, 1);
    builder.conv(in, 4, Window{1, 3, 0, 1, 1, 1, 1, 1});
    builder.depthwise(in, 3, 2, 1);
    builder.deconvolution(in, 4, 4, 2, 1);
    builder.depthwise_deconvolution(in, Window{4, 3, 1, 1, 2, 1, 1, 1});
    builder.pooling(in, 1, 2, 2);
    EXPECT_EQ((std::vector<std::string>{"Input", "Convolution3x3s2x2", "Convolution1x3s1x1",
                                        "ConvolutionDepthWise3x3s2x2", "Deconvolution4x4s2x2",
                                        "DeconvolutionDepthWise3x4s1x2", "Pooling2x2s2x2"}),
              types_of(*net_of(builder)));
}

TEST(Construction, TheDefaultConvolutionFollowsTheShape) {
    struct Case {
        Window window;
        const char* name;
    };
    const Case cases[] = {
        {{3, 3, 1, 1, 1, 1, 1, 1}, "Convolution_3x3s1_Float_SGEMM"},
        {{3, 3, 1, 1, 2, 2, 1, 1}, "Convolution_3x3s2_Float_SGEMM"},
        {{1, 1, 0, 0, 1, 1, 1, 1}, "Convolution_1x1s1_Float_SGEMM"},
        {{1, 1, 0, 0, 2, 2, 1, 1}, "Convolution_1x1s2_Float_SGEMM"},
        {{3, 3, 2, 2, 1, 1, 2, 2}, "Convolution_Float_Fallback"},
        {{3, 3, 1, 1, 2, 1, 1, 1}, "Convolution_Float_Fallback"},
        {{5, 5, 2, 2, 1, 1, 1, 1}, "Convolution_Float_Fallback"},
        {{1, 3, 0, 1, 1, 1, 1, 1}, "Convolution_Float_Fallback"},
        {{1, 1, 0, 0, 1, 2, 1, 1}, "Convolution_Float_Fallback"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        NetBuilder builder(small_header());
        builder.conv(builder.input(4), 4, c.window);
        EXPECT_EQ(c.name, operators_of(*net_of(builder))[1]);
    }
}

TEST(Construction, EveryOtherKindHasItsDefaultOperator) {
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    builder.deconvolution(in, 4, 3, 1, 1);
    builder.depthwise(in, 3, 1, 1);
    builder.depthwise_deconvolution(in, 3, 1, 1);
    builder.pixel_shuffle(in, 2.0);
    builder.pooling(in, 0, 2, 2);
    builder.batchnorm(in);
    builder.region(in, 1, 1, 1);
    builder.eltwise({in, in});
    builder.concat({in, in});
    builder.upsampling(in, 2.0);
    const int tensor = builder.tensor_input({1, 1, 16});
    builder.reshape(tensor, {1, 16});
    builder.fully_connected(tensor, 16, 4);
    builder.lstm(tensor, 16, 4);
    const auto net = net_of(builder);
    EXPECT_EQ(
        (std::vector<std::string>{
            "Input_Fallback", "Deconvolution_Float_Fallback", "ConvolutionDepthwise_Float_Fallback",
            "DeconvolutionDepthwise_Float_Fallback", "PixelShuffle_Float_Fallback",
            "Pooling_Float_Fallback", "Batchnorm_Float_Fallback", "nullptr",
            "Elementwise_Float_SSE", "nullptr", "Upsampling_Float_Fallback", "Input_Fallback",
            "nullptr", "FullConnection_Float_SSE_M1", "LSTM_Fallback"}),
        operators_of(*net));
    EXPECT_EQ("BatchNormalization", net->layers[6]->type);
    ASSERT_EQ(1u, net->lstm_operators.size());
    EXPECT_EQ(net->layers.back()->get_operator(), net->lstm_operators[0]);
}

TEST(Construction, ActivationKindsHaveTheirOperatorsAndNames) {
    struct Case {
        int kind;
        const char* text;
        const char* op;
    };
    const Case cases[] = {
        {1, "Linear", "Linear_Float_Fallback"},   {2, "ReLU", "ReLU_Float_SSE"},
        {6, "LeakyReLU", "ReLU_Float_Fallback"},  {3, "Tanh", "Tanh_Float_Fallback"},
        {4, "Sigmoid", "Sigmoid_Float_Fallback"}, {8, "ReLU6", "ReLU6_Float_Fallback"},
        {7, "SoftMax", "Softmax_Float_Fallback"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        NetBuilder builder(small_header());
        const int in = builder.input(4);
        builder.activation(in, c.kind, 2.0, 0.5);
        builder.conv(in, 4, 1, 1, 0, c.kind);
        builder.tensor_activation(builder.tensor_input({4}), c.kind, 2.0, 1.0);
        const auto net = net_of(builder);
        ASSERT_EQ(6u, net->layers.size());
        EXPECT_EQ(std::string("Activation:") + c.text, net->layers[1]->type);
        EXPECT_EQ(c.text, net->layers[3]->type);
        EXPECT_EQ(std::string("Activation:") + c.text, net->layers[5]->type);
        for (const int at : {1, 3, 5}) {
            EXPECT_EQ(c.op, net->layers[static_cast<size_t>(at)]->operator_name());
        }
    }
}

TEST(Construction, LinearTakesSlopeAndOffsetAndLeakyReluATenth) {
    NetBuilder builder(small_header());
    const int in = builder.input(1);
    builder.activation(in, ActivationType_Linear, 2.0, 0.5);
    builder.activation(1, ActivationType_LeakyReLU);
    const auto net = net_of(builder);
    const float values[4] = {-1.0f, 0.0f, 1.0f, -3.0f};
    const Mat in_mat = Mat::from_float_array(values, 2, 2, 1, TensorShape::CHW, nullptr);
    EXPECT_EQ((std::vector<float>{-1.5f * 0.1f, 0.5f, 2.5f, -5.5f * 0.1f}),
              values_of(run(*net, in_mat)));
}

TEST(Construction, AnActivationRecordIsNotInPlaceAndAFusedOneIs) {
    NetBuilder builder(small_header());
    builder.activation(builder.input(4), ActivationType_ReLU);
    EXPECT_FALSE(net_of(builder)->layers[1]->support_inplace);
    NetBuilder fused(small_header());
    fused.eltwise({fused.input(4), 0}, 0, ActivationType_ReLU);
    EXPECT_TRUE(net_of(fused)->layers[2]->support_inplace);
}

TEST(Construction, ATensorActivationsNumbersArePlainOnes) {
    NetBuilder builder(small_header());
    builder.tensor_activation(builder.tensor_input({4}), ActivationType_Linear, 2.0, 1.0);
    const auto net = net_of(builder);
    const float values[4] = {1, 2, 3, 4};
    EXPECT_EQ(
        (std::vector<float>{3, 5, 7, 9}),
        values_of(run(*net, Mat::from_float_array(values, 4, 1, 1, TensorShape::CHW, nullptr))));
}

TEST(Construction, EveryKindWithAFusedActivationHasTwoEntries) {
    const std::function<void(NetBuilder&, int)> kinds[] = {
        [](NetBuilder& b, int act) { b.conv(0, 4, 3, 1, 1, act); },
        [](NetBuilder& b, int act) { b.deconvolution(0, 4, 3, 1, 1, act); },
        [](NetBuilder& b, int act) { b.depthwise(0, 3, 1, 1, act); },
        [](NetBuilder& b, int act) { b.depthwise_deconvolution(0, 3, 1, 1, act); },
        [](NetBuilder& b, int act) {
            b.eltwise({0, 0}, 0, act);
        },
    };
    for (const auto& add : kinds) {
        for (const int activation : {0, static_cast<int>(ActivationType_ReLU)}) {
            NetBuilder builder(small_header());
            builder.input(4);
            add(builder, activation);
            const Loaded loaded(builder);
            TarnoNet probe;
            probe.load_tarno_net_with_inference_config(loaded.loader, nullptr);
            const size_t expected = activation != 0 ? 3 : 2;
            EXPECT_EQ(expected, probe.layers.size());
            std::vector<LayerInferenceConfig> table;
            for (const Layer* layer : probe.layers) {
                table.push_back({layer->inference_config.op_creator, 0, 0});
            }
            TarnoNet net;
            EXPECT_EQ(0, net.load_tarno_net_with_inference_config(loaded.loader, table));
            table.pop_back();
            TarnoNet other;
            EXPECT_EQ(1, other.load_tarno_net_with_inference_config(loaded.loader, table));
        }
    }
}

TEST(Construction, LayersRunInTheOrderOfTheFileAlsoWhereItIsNotOneOfReading) {
    // The second record reads the third one's output: in file order it finds nothing.
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    builder.activation(in, ActivationType_ReLU);
    builder.activation(in, ActivationType_ReLU);
    builder.record(1)->bottoms[0] = 2;
    AssertRecorder assertions;
    EXPECT_TRUE(run(*net_of(builder), random_tensor(4, 8, 8, 1), 1, -100).empty());
    const Loaded sorted(builder, true);
    TarnoNet net;
    net.load_tarno_net_with_inference_config(sorted.loader, nullptr);
    EXPECT_EQ((std::vector<int>{0, 2, 1}),
              (std::vector<int>{net.layers[0]->id, net.layers[1]->id, net.layers[2]->id}));
    EXPECT_FALSE(run(net, random_tensor(4, 8, 8, 1)).empty());
}

TEST(Construction, TheTableHasOneEntryPerLayerFusedActivationsIncluded) {
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    const int conv = builder.conv(in, 4, 3, 1, 1, ActivationType_ReLU);
    builder.activation(conv, ActivationType_Sigmoid);
    const Loaded loaded(builder);
    const std::vector<LayerInferenceConfig> table = {
        config_of("Input_Fallback"), config_of("Convolution_Float_Fallback"),
        config_of("ReLU_Float_Fallback"), config_of("Sigmoid_Float_Fallback")};
    TarnoNet net;
    EXPECT_EQ(0, net.load_tarno_net_with_inference_config(loaded.loader, table));
    EXPECT_EQ((std::vector<std::string>{"Input_Fallback", "Convolution_Float_Fallback",
                                        "ReLU_Float_Fallback", "Sigmoid_Float_Fallback"}),
              operators_of(net));
    for (const size_t length : {size_t{0}, size_t{3}, size_t{5}}) {
        TarnoNet empty;
        EXPECT_EQ(1, empty.load_tarno_net_with_inference_config(
                         loaded.loader,
                         std::vector<LayerInferenceConfig>(length, config_of("Input_Fallback"))));
        EXPECT_TRUE(empty.layers.empty());
        EXPECT_TRUE(empty.blobs.empty());
    }
}

TEST(Construction, ATableGivesLayersWithoutAnOperatorANullEntry) {
    NetBuilder builder(small_header());
    const int in = builder.input(8);
    builder.region(in, 1, 1, 1);
    builder.concat({in, in});
    const int tensor = builder.tensor_input({1, 1, 16});
    builder.reshape(tensor, {1, 16});
    builder.activation(in, ActivationType_ReLU);
    std::vector<LayerInferenceConfig> table = {
        config_of("Input_Fallback"), config_of(nullptr), config_of(nullptr),
        config_of("Input_Fallback"), config_of(nullptr), config_of("ReLU_Float_Fallback")};
    {
        AssertRecorder assertions;
        EXPECT_EQ("ReLU_Float_Fallback", operators_of(*net_of(builder, table.data())).back());
        EXPECT_EQ(0u, assertions.count());
    }
    for (const int at : {1, 2}) {
        SCOPED_TRACE(at);
        std::vector<LayerInferenceConfig> wrong = table;
        wrong[static_cast<size_t>(at)] = config_of("ReLU_Float_SSE");
        AssertRecorder assertions;
        EXPECT_EQ("ReLU_Float_Fallback", operators_of(*net_of(builder, wrong.data())).back());
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("ics[ic_index].op_creator == nullptr", assertions.last().condition);
        EXPECT_EQ("tarnonet", assertions.last().source);
        EXPECT_EQ(at == 1 ? 943 : 1068, assertions.last().line);
    }
    // A reshape's entry is passed over unseen.
    std::vector<LayerInferenceConfig> wrong = table;
    wrong[4] = config_of("ReLU_Float_SSE");
    AssertRecorder assertions;
    EXPECT_EQ("ReLU_Float_Fallback", operators_of(*net_of(builder, wrong.data())).back());
    EXPECT_EQ(0u, assertions.count());
}

TEST(Construction, AnUnsupportedRecordAssertsAndConsumesNoEntry) {
    const std::function<void(NetBuilder&, int)> kinds[] = {
        [](NetBuilder& b, int in) { b.instance_normalization(in); },
        [](NetBuilder& b, int in) { b.channel_shuffle(in); },
        [](NetBuilder& b, int) {
            b.transpose(b.tensor_input({1, 4}), {1, 0}, {4, 1});
        },
        [](NetBuilder& b, int) {
            b.squeeze(b.tensor_input({1, 4}), 0, {4});
        },
    };
    for (const auto& add : kinds) {
        NetBuilder builder(small_header());
        const int in = builder.input(4);
        add(builder, in);
        builder.activation(in, ActivationType_ReLU);
        const bool second_input = builder.count() == 4;
        std::vector<LayerInferenceConfig> table = {config_of("Input_Fallback")};
        if (second_input) table.push_back(config_of("Input_Fallback"));
        table.push_back(config_of("ReLU_Float_Fallback"));
        AssertRecorder assertions;
        const auto net = net_of(builder, table.data());
        EXPECT_EQ("ReLU_Float_Fallback", operators_of(*net).back());
        EXPECT_EQ(second_input ? 3u : 2u, net->layers.size());
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Unsupported tarno layer type\"", assertions.last().condition);
        EXPECT_EQ("tarnonet", assertions.last().source);
        EXPECT_EQ(1396, assertions.last().line);
    }
}

TEST(Construction, UnknownNumbersRaiseTheirAssertionsAndTheLayerFails) {
    struct Case {
        const char* text;
        int line;
        std::function<void(NetBuilder&)> spoil;
    };
    const Case cases[] = {
        {"false && \"Invalid tarno pooling type\"", 857,
         [](NetBuilder& b) {
             b.pooling(0, 1, 2, 2);
             static_cast<ZQLayerInfo_Pooling*>(b.record(1))->pool_type = 2;
         }},
        {"false && \"Unsupported tarno eltwise operator\"", 1010,
         [](NetBuilder& b) {
             b.eltwise({0, 0});
             static_cast<ZQLayerInfo_ElementWiseOperator*>(b.record(1))->operator_type = 1;
         }},
        {"false && \"Unsupported tarno activation type\"", 190,
         [](NetBuilder& b) {
             b.activation(0, ActivationType_ReLU);
             static_cast<ZQLayerInfo_Activation*>(b.record(1))->activation_type = 5;
         }},
        {"false && \"Unsupported tarno activation type\"", 190,
         [](NetBuilder& b) {
             b.conv(0, 4, 1, 1, 0, ActivationType_ReLU);
             static_cast<ZQLayerInfo_Conv2D*>(b.record(1))->activation = 5;
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        NetBuilder builder(small_header());
        builder.input(4);
        c.spoil(builder);
        AssertRecorder assertions;
        const auto net = net_of(builder);
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ(c.text, assertions.last().condition);
        EXPECT_EQ("tarnonet", assertions.last().source);
        EXPECT_EQ(c.line, assertions.last().line);
        EXPECT_TRUE(run(*net, random_tensor(4, 8, 8, 1), -1, -100).empty());
    }
}

TEST(Construction, AnActivationRecordOfKindNoneAsserts) {
    for (const bool tensor : {false, true}) {
        NetBuilder builder(small_header());
        const int in = builder.input(4);
        if (tensor) {
            builder.tensor_activation(builder.tensor_input({4}), ActivationType_ReLU);
            static_cast<ZQLayerInfo_TensorActivation*>(builder.record(2))->activation_type = 0;
        } else {
            builder.activation(in, ActivationType_ReLU);
            static_cast<ZQLayerInfo_Activation*>(builder.record(1))->activation_type = 0;
        }
        AssertRecorder assertions;
        net_of(builder);
        ASSERT_GE(assertions.count(), 1u);
        const auto& first = assertions.entries()[0];
        EXPECT_EQ(tensor ? "zqlayer->_activation_type != ActivationType_None"
                         : "zqlayer->activation_type != ActivationType_None",
                  first.condition);
        EXPECT_EQ("tarnonet", first.source);
        EXPECT_EQ(tensor ? 1123 : 1150, first.line);
        EXPECT_EQ(1u, assertions.count("false && \"Unsupported tarno activation type\""));
    }
}

TEST(Construction, AnIdWithoutARecordRaisesTheAssertionOfItsOverload) {
    // A sorted model that reads from a layer that is not there has such an id in its order.
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    builder.eltwise({in, in});
    builder.record(1)->bottoms[1] = 9;
    const Loaded loaded(builder, true);
    const auto order = loaded.loader.getSequentialLayers();
    ASSERT_NE(order.end(), std::find(order.begin(), order.end(), 9));
    {
        AssertRecorder assertions;
        TarnoNet net;
        net.load_tarno_net_with_inference_config(loaded.loader, nullptr);
        EXPECT_EQ(1u, assertions.count("zqlayer_info != NULL"));
        EXPECT_EQ("tarnonet", assertions.entries()[0].source);
        EXPECT_EQ(410, assertions.entries()[0].line);
    }
    AssertRecorder assertions;
    TarnoNet net;
    EXPECT_EQ(1, net.load_tarno_net_with_inference_config(loaded.loader,
                                                          std::vector<LayerInferenceConfig>(9)));
    ASSERT_EQ(1u, assertions.count("zqlayer_info != NULL"));
    EXPECT_EQ("tarnonet", assertions.entries()[0].source);
    EXPECT_EQ(343, assertions.entries()[0].line);
}

TEST(Construction, ABottomThatNoRecordHasFailsTheRunWithoutACrash) {
    for (const int missing : {1, 5, 65535}) {
        NetBuilder builder(small_header());
        builder.conv(builder.input(4), 4, 1, 1, 0, ActivationType_ReLU);
        builder.record(1)->bottoms[0] = static_cast<unsigned short>(missing);
        AssertRecorder assertions;
        const auto net = net_of(builder);
        EXPECT_TRUE(run(*net, random_tensor(4, 8, 8, 1), -1, -100).empty());
        EXPECT_GE(assertions.count(), 1u);
    }
}

}  // namespace
