// From records to layers, blobs and operators.
#include <gtest/gtest.h>
#include <tarno/model.h>

#include <functional>
#include <memory>

#include "modelkit/net_builder.h"
#include "support/recorders.h"
#include "support/temporary_file.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;
using modelkit::ModelHeader;
using modelkit::NetBuilder;
using modelkit::Window;

/// A loader of what a builder made.
class Loaded {
public:
    ZQNetLoader loader;

    explicit Loaded(const NetBuilder& builder, bool sort = false) {
        std::vector<unsigned char> bytes;
        const modelkit::Status status = builder.write(bytes);
        EXPECT_TRUE(status.ok()) << status.message();
        const TemporaryFile file(bytes);
        EXPECT_TRUE(loader.LoadFile(file.path(), sort)) << loader.failure();
    }
};

std::unique_ptr<TarnoNet> net_of(const NetBuilder& builder,
                                 const LayerInferenceConfig* configs = nullptr) {
    const Loaded loaded(builder);
    auto net = std::make_unique<TarnoNet>();
    net->load_tarno_net_with_inference_config(loaded.loader, configs);
    return net;
}

LayerInferenceConfig config_of(const char* name) {
    return {name != nullptr ? find_operator(name)->creator : nullptr, 0, 0};
}

std::vector<std::string> types_of(const TarnoNet& net) {
    std::vector<std::string> types;
    for (const Layer* layer : net.layers) types.push_back(layer->type);
    return types;
}

std::vector<std::string> operators_of(const TarnoNet& net) {
    std::vector<std::string> names;
    for (Layer* layer : net.layers) names.push_back(layer->operator_name());
    return names;
}

Mat run(const TarnoNet& net, const Mat& in, int layer = -1, int expected = 0) {
    TarnoNetExtractor extractor = net.create_extractor();
    EXPECT_EQ(0, extractor.input(0, in));
    Mat out;
    EXPECT_EQ(expected,
              extractor.extract(layer < 0 ? extractor.get_last_layer_index() : layer, out));
    return out;
}

ModelHeader small_header(unsigned int version = 10011) {
    ModelHeader header;
    header.version = version;
    header.base_w = 8;
    header.base_h = 8;
    return header;
}

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

// ---- weights on their way to the operators, seen through what the operators compute ----

// All weights different, in the order of the file.
std::vector<float> numbered(size_t count) {
    std::vector<float> values(count);
    for (size_t i = 0; i < count; ++i) values[i] = static_cast<float>(static_cast<int>(i) - 20);
    return values;
}

TEST(ConstructionWeights, AConvolutionsInputChannelsMoveOutOfItsTaps) {
    NetBuilder builder(small_header());
    const int in = builder.input(2);
    const std::vector<float> file = numbered(3 * 9 * 2);
    builder.conv(in, 3, Window::square(3, 1, 1), 0, 1, {file, {1, 2, 3}});
    const auto net = net_of(builder);
    const Mat in_mat = random_tensor(2, 8, 8, 21);
    const Mat out = run(*net, in_mat);
    for (int o = 0; o < 3; ++o) {
        for (int y = 0; y < 8; ++y) {
            for (int x = 0; x < 8; ++x) {
                double sum = o + 1, magnitude = std::fabs(sum);
                for (int ky = 0; ky < 3; ++ky) {
                    for (int kx = 0; kx < 3; ++kx) {
                        for (int i = 0; i < 2; ++i) {
                            const int sy = y + ky - 1, sx = x + kx - 1;
                            if (sy < 0 || sx < 0 || sy > 7 || sx > 7) continue;
                            const double product =
                                static_cast<double>(
                                    file[static_cast<size_t>(((o * 3 + ky) * 3 + kx) * 2 + i)]) *
                                in_mat.ptr<float>()[(i * 8 + sy) * 8 + sx];
                            sum += product;
                            magnitude += std::fabs(product);
                        }
                    }
                }
                EXPECT_NEAR(sum, out.ptr<float>()[(o * 8 + y) * 8 + x],
                            sum_error_bound(18, magnitude));
            }
        }
    }
}

TEST(ConstructionWeights, ARecordOfTheOldestVersionCountsAsOneGroup) {
    for (const unsigned int version : {10000u, 10001u}) {
        NetBuilder builder(small_header(version));
        builder.conv(builder.input(2), 2, 1, 1, 0, 0, {{1, 2, 3, 4}, {0, 0}});
        const auto net = net_of(builder);
        const float values[8] = {1, 1, 1, 1, 10, 10, 10, 10};
        const Mat out =
            run(*net, Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
        EXPECT_EQ((std::vector<float>{21, 21, 21, 21, 43, 43, 43, 43}), values_of(out));
    }
}

TEST(ConstructionWeights, AGroupedConvolutionsWeightsPassAsTheyAre) {
    // The depthwise operator applies groups to them.
    NetBuilder builder(small_header());
    const std::vector<float> file = numbered(4 * 2 * 9);
    builder.conv(builder.input(4), 4, Window::square(3, 1, 1), 0, 2, {file, {0, 0, 0, 0}});
    const std::vector<LayerInferenceConfig> table = {
        config_of("Input_Fallback"), config_of("ConvolutionDepthwise_Float_Fallback")};
    const auto net = net_of(builder, table.data());
    const Mat in_mat = random_tensor(4, 8, 8, 22);
    const Mat out = run(*net, in_mat);
    for (int o = 0; o < 4; ++o) {
        double sum = 0, magnitude = 0;  // at (4, 4), away from the border
        for (int i = 0; i < 2; ++i) {
            for (int k = 0; k < 9; ++k) {
                const double product =
                    static_cast<double>(file[static_cast<size_t>((o * 2 + i) * 9 + k)]) *
                    in_mat.ptr<float>()[((o / 2 * 2 + i) * 8 + 3 + k / 3) * 8 + 3 + k % 3];
                sum += product;
                magnitude += std::fabs(product);
            }
        }
        EXPECT_NEAR(sum, out.ptr<float>()[(o * 8 + 4) * 8 + 4], sum_error_bound(18, magnitude));
    }
}

TEST(ConstructionWeights, ADepthwiseConvolutionsChannelsMoveOutOfItsTaps) {
    NetBuilder builder(small_header());
    const std::vector<float> file = numbered(9 * 4);
    builder.depthwise(builder.input(4), 3, 1, 1, 0, {file, {0, 0, 0, 0}});
    const auto net = net_of(builder);
    const Mat in_mat = random_tensor(4, 8, 8, 23);
    const Mat out = run(*net, in_mat);
    for (int c = 0; c < 4; ++c) {
        double sum = 0, magnitude = 0;
        for (int k = 0; k < 9; ++k) {
            const double product = static_cast<double>(file[static_cast<size_t>(k * 4 + c)]) *
                                   in_mat.ptr<float>()[(c * 8 + 3 + k / 3) * 8 + 3 + k % 3];
            sum += product;
            magnitude += std::fabs(product);
        }
        EXPECT_NEAR(sum, out.ptr<float>()[(c * 8 + 4) * 8 + 4], sum_error_bound(9, magnitude));
    }
}

TEST(ConstructionWeights, ADepthMultiplierMakesItsChannelsSideBySide) {
    NetBuilder builder(small_header());
    // Two channels, multiplier 2: output 2 * c + m reads channel c with filter [tap][2 * c + m].
    builder.depthwise(builder.input(2), Window::square(1, 1, 0), 0, 2,
                      {{1, 2, 3, 4}, {0, 0, 0, 0}});
    const auto net = net_of(builder);
    const float values[2] = {10, 100};
    const Mat out = run(*net, Mat::from_float_array(values, 1, 1, 2, TensorShape::CHW, nullptr));
    EXPECT_EQ((std::vector<float>{10, 20, 300, 400}), values_of(out));
}

TEST(ConstructionWeights, ADeconvolutionScattersItsReorderedWeights) {
    NetBuilder builder(small_header());
    const std::vector<float> file = numbered(3 * 16 * 2);  // [out][y][x][in], 4 x 4, stride 2
    builder.deconvolution(builder.input(2), 3, Window::square(4, 2, 1), 0, 1, {file, {0, 0, 0}});
    const auto net = net_of(builder);
    Mat in_mat(chw(2, 4, 4), nullptr);
    std::memset(in_mat.data, 0, 2 * 16 * sizeof(float));
    in_mat.ptr<float>()[16 + 1 * 4 + 2] = 1.0f;  // channel 1, row 1, column 2
    const Mat out = run(*net, in_mat);
    ASSERT_TRUE(out.shape == chw(3, 8, 8));
    for (int o = 0; o < 3; ++o) {
        for (int y = 0; y < 8; ++y) {
            for (int x = 0; x < 8; ++x) {
                const int ky = y - (1 * 2 - 1), kx = x - (2 * 2 - 1);
                const bool hit = ky >= 0 && ky < 4 && kx >= 0 && kx < 4;
                const float expected =
                    hit ? file[static_cast<size_t>(((o * 4 + ky) * 4 + kx) * 2 + 1)] : 0.0f;
                EXPECT_EQ(expected, out.ptr<float>()[(o * 8 + y) * 8 + x]);
            }
        }
    }
}

TEST(ConstructionWeights, ADepthwiseDeconvolutionsMultiplierMovesOutOfItsTaps) {
    NetBuilder builder(small_header());
    // [channel][y][x][multiplier], one tap: two channels, multiplier 2.
    builder.depthwise_deconvolution(builder.input(2), Window{1, 1, 1, 1, 1, 1, 1, 1}, 0, 2,
                                    {{1, 2, 3, 4}, {0, 0, 0, 0}});
    const auto net = net_of(builder);
    const float values[8] = {10, 10, 10, 10, 100, 100, 100, 100};
    const Mat out = run(*net, Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
    ASSERT_EQ(4, out.shape.c);
    // The scratch is 4 x 4 (size + 2), the cut of one pixel all round leaves its inside, in which
    // only the last input pixel lies, at the front.
    for (int c = 0; c < 4; ++c) {
        const float* plane = out.ptr<float>() + c * out.shape.h * out.shape.w;
        const float expected[4] = {10, 20, 300, 400};
        EXPECT_EQ(expected[c], plane[0]);
    }
}

TEST(ConstructionWeights, ABiasThatTheRecordDisownsIsNotAdded) {
    const std::function<void(NetBuilder&)> kinds[] = {
        [](NetBuilder& b) {
            b.conv(0, 1, 1, 1, 0, 0, {{2}, {5}});
            static_cast<ZQLayerInfo_Conv2D*>(b.record(1))->has_bias = 0;
        },
        [](NetBuilder& b) {
            b.depthwise(0, 1, 1, 0, 0, {{2}, {5}});
            static_cast<ZQLayerInfo_DepthWiseConv2D*>(b.record(1))->has_bias = 0;
        },
    };
    for (const auto& add : kinds) {
        NetBuilder builder(small_header());
        builder.input(1);
        add(builder);
        const float values[4] = {1, 2, 3, 4};
        EXPECT_EQ(
            (std::vector<float>{2, 4, 6, 8}),
            values_of(run(*net_of(builder),
                          Mat::from_float_array(values, 2, 2, 1, TensorShape::CHW, nullptr))));
    }
}

TEST(ConstructionWeights, ADeconvolutionOfSeveralGroupsReadsZerosBehindItsWeights) {
    NetBuilder builder(small_header());
    // Two groups, two channels, one tap: the file has two weights where the operator has four.
    builder.deconvolution(builder.input(2), 2, Window{1, 1, 1, 1, 1, 1, 1, 1}, 0, 2,
                          {{3, 4}, {0, 0}});
    const float values[8] = {10, 10, 10, 10, 100, 100, 100, 100};
    const Mat out =
        run(*net_of(builder), Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
    ASSERT_EQ(2, out.shape.c);
    EXPECT_EQ(3.0f * 10 + 4.0f * 100, out.ptr<float>()[0]);
    EXPECT_EQ(0.0f, out.ptr<float>()[out.shape.h * out.shape.w]);
}

TEST(ConstructionWeights, OfAStackedLstmTheFirstLayerRuns) {
    // Layer by layer the builder's numbers differ; the engine takes those of the first.
    const auto outputs = [](int layers) {
        NetBuilder builder(small_header(), 9);
        const int in = builder.tensor_input({2, 1, 4});
        builder.lstm(in, 4, 4, true, false, layers);
        return values_of(run(*net_of(builder), random_tensor(2, 1, 4, 31)));
    };
    const std::vector<float> one = outputs(1);
    ASSERT_EQ(8u, one.size());
    // The generator runs array by array, so the first layer of both nets has equal weights only
    // when they are drawn first.
    NetBuilder builder(small_header(), 9);
    builder.lstm(builder.tensor_input({2, 1, 4}), 4, 4, true, false, 2);
    const auto* lstm = static_cast<const ZQLayerInfo_LSTM*>(builder.record(1));
    NetBuilder first(small_header(), 9);
    first.lstm(first.tensor_input({2, 1, 4}), 4, 4, true, false, 1);
    auto* copy = static_cast<ZQLayerInfo_LSTM*>(first.record(1));
    const auto take = [](float** to, unsigned short** to_half, float** from,
                         unsigned short** from_half, size_t count) {
        std::copy(from[0], from[0] + count, to[0]);
        std::copy(from_half[0], from_half[0] + count, to_half[0]);
    };
    take(copy->w_ih, copy->w_ih_half, lstm->w_ih, lstm->w_ih_half, lstm->w_ih_count);
    take(copy->w_hh, copy->w_hh_half, lstm->w_hh, lstm->w_hh_half, lstm->w_hh_count);
    take(copy->b_ih, copy->b_ih_half, lstm->b_ih, lstm->b_ih_half, lstm->bias_count);
    take(copy->b_hh, copy->b_hh_half, lstm->b_hh, lstm->b_hh_half, lstm->bias_count);
    const Mat in_mat = random_tensor(2, 1, 4, 31);
    EXPECT_EQ(values_of(run(*net_of(first), in_mat)), values_of(run(*net_of(builder), in_mat)));
}

TEST(ConstructionWeights, AReshapeCountsTheDimensionsThatAreNotZero) {
    struct Case {
        std::vector<int> dims;
        int rank;
        int width;  // of the top, 0 for a refusal
    };
    const Case cases[] = {
        {{1, 8}, 2, 8},           // the second of two
        {{8, 0}, 2, 8},           // one that is not 0: the width stays
        {{1, 1, 8}, 3, 8},        // the third of three
        {{1, 8, 0, 1}, 4, 0},     // three count, and the third is 0
        {{1, 1, 1, 8}, 4, 8},     // the fourth of four
        {{1, 1, 1, 1, 8}, 5, 8},  // more than four: the width stays
    };
    for (const Case& c : cases) {
        NetBuilder builder(small_header());
        builder.reshape(builder.tensor_input({1, 1, 8}), {1, 8});
        auto* record = static_cast<ZQLayerInfo_TensorReshape*>(builder.record(1));
        record->out_tensor.rank = static_cast<unsigned short>(c.rank);
        for (int i = 0; i < 11; ++i) {
            record->out_tensor.dims[i] = static_cast<unsigned short>(
                i < static_cast<int>(c.dims.size()) ? c.dims[static_cast<size_t>(i)] : 0);
        }
        AssertRecorder assertions;
        const Mat out = run(*net_of(builder), random_tensor(1, 1, 8, 1), -1, c.width ? 0 : -100);
        EXPECT_EQ(c.width, out.shape.w);
        EXPECT_EQ(c.width ? 0u : 1u,
                  assertions.count("false && \"Invalid forward pre conditions\""));
    }
}

TEST(ConstructionWeights, BatchNormalizationsArraysAreSlopeBiasVarianceMean) {
    NetBuilder builder(small_header());
    builder.batchnorm(builder.input(2), {2, 3}, {10, 20}, {4, 16}, {1, 2});
    const auto net = net_of(builder);
    const float values[8] = {5, 5, 5, 5, 6, 6, 6, 6};
    const Mat out = run(*net, Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
    // slope * (x - mean) / sqrt(variance) + bias
    EXPECT_EQ((std::vector<float>{14, 14, 14, 14, 23, 23, 23, 23}), values_of(out));
}

TEST(ConstructionWeights, EltwiseCodesAreSumAndProduct) {
    for (const int code : {0, 2}) {
        NetBuilder builder(small_header());
        const int in = builder.input(1);
        builder.activation(in, ActivationType_Linear, 1.0, 2.0);
        builder.eltwise({0, 1}, code, ActivationType_ReLU);
        const auto net = net_of(builder);
        const float values[4] = {3, -4, -1, 0};
        const Mat out =
            run(*net, Mat::from_float_array(values, 2, 2, 1, TensorShape::CHW, nullptr));
        EXPECT_EQ(code == 0 ? (std::vector<float>{8, 0, 0, 2}) : (std::vector<float>{15, 8, 0, 0}),
                  values_of(out));
    }
}

TEST(ConstructionWeights, PoolingKindsAreMaximumOneAndAverageZero) {
    for (const int type : {0, 1}) {
        NetBuilder builder(small_header());
        builder.pooling(builder.input(1), type, 2, 2);
        const auto net = net_of(builder);
        const float values[4] = {1, 2, 3, 6};
        const Mat out =
            run(*net, Mat::from_float_array(values, 2, 2, 1, TensorShape::CHW, nullptr));
        EXPECT_EQ((std::vector<float>{type == 1 ? 6.0f : 3.0f}), values_of(out));
    }
}

TEST(ConstructionWeights, RegionAndConcatGetTheirFields) {
    NetBuilder builder(small_header());
    const int in = builder.input(2);
    builder.concat({in, in});
    builder.region(1, 1, 0, 1);
    const auto net = net_of(builder);
    Mat in_mat(chw(2, 8, 16), nullptr);
    std::fill(in_mat.ptr<float>(), in_mat.ptr<float>() + 256, 0.0f);
    const Mat out = run(*net, in_mat);
    ASSERT_TRUE(out.shape == chw(4, 8, 16));
    // One anchor, no box values: entry 0 is box value and score in one and is taken twice, entry 1
    // is the only class, which a softmax makes 1. Entries are 124 apart: 11 * 11 rounded up.
    const float* values = out.ptr<float>();
    const double once = 0.5, twice = 1.0 / (1.0 + std::exp(-once));
    // Rounded after the exponential, the addition and the division, of numbers below 2.
    const double rounding = 3 * 2 * std::ldexp(1.0, -24);
    EXPECT_NEAR(twice, values[0], rounding);
    EXPECT_NEAR(twice, values[120], rounding);
    for (int gap = 121; gap < 124; ++gap) EXPECT_EQ(0.0f, values[gap]);
    EXPECT_EQ(1.0f, values[124]);
    EXPECT_EQ(1.0f, values[244]);
    EXPECT_EQ(0.0f, values[245]);
}

// ---- damaged records ----

TEST(DamagedRecords, ZeroStridesHugeKernelsAndOddFactorsFailTheirLayerWithoutACrash) {
    struct Case {
        int layer;
        std::function<void(ZQLayerInfo*)> damage;
    };
    const Case cases[] = {
        {1, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Conv2D*>(r)->stride_w = 0; }},
        {2, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_DepthWiseConv2D*>(r)->stride_h = 0; }},
        {3, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Pooling*>(r)->stride_w = 0; }},
        {3, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Pooling*>(r)->kernel_w = 60000; }},
        {4, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Conv2DTranspose*>(r)->stride_w = 0; }},
        {5, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_PixelShuffle*>(r)->upscale_factor = 0; }},
        {5,
         [](ZQLayerInfo* r) {
             static_cast<ZQLayerInfo_PixelShuffle*>(r)->upscale_factor = 0x7c00;  // infinity
         }},
        {6,
         [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Upsampling*>(r)->scale = 0x7e00; }},  // NaN
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        SCOPED_TRACE(i);
        NetBuilder builder(small_header());
        const int in = builder.input(4);
        builder.conv(in, 4, Window::square(5, 1, 2));
        builder.depthwise(in, 3, 1, 1);
        builder.pooling(in, 1, 2, 2);
        builder.deconvolution(in, 4, 3, 1, 1);
        builder.pixel_shuffle(in, 2.0);
        builder.upsampling(in, 2.0);
        cases[i].damage(builder.record(cases[i].layer));
        AssertRecorder assertions;
        const auto net = net_of(builder);
        ASSERT_EQ(7u, net->layers.size());
        for (int layer = 1; layer < 7; ++layer) {
            Mat out;
            const int result = net->layers[static_cast<size_t>(layer)]->forward(
                random_tensor(4, 8, 8, 1), out, get_default_option());
            EXPECT_EQ(layer == cases[i].layer ? -100 : 0, result) << layer;
        }
    }
}

TEST(DamagedRecords, SeededMutationsOfAWholeNetBuildAndRunInsideTheirBlocks) {
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    const int conv = builder.conv(in, 8, 3, 2, 1, ActivationType_ReLU);
    const int depthwise = builder.depthwise(conv, 3, 1, 1, ActivationType_ReLU6);
    const int sum = builder.eltwise({conv, depthwise}, 0, ActivationType_ReLU);
    const int up = builder.upsampling(sum, 2.0);
    const int joined = builder.concat({up, in});
    const int deconv = builder.deconvolution(joined, 4, 4, 2, 1);
    const int pooled = builder.pooling(deconv, 0, 2, 2);
    const int shuffled = builder.pixel_shuffle(pooled, 2.0);
    builder.batchnorm(shuffled);
    const int tensor = builder.tensor_input({3, 1, 16});
    builder.lstm(tensor, 16, 4, true, true);
    builder.fully_connected(builder.reshape(tensor, {1, 48}), 48, 8);
    std::vector<unsigned char> whole;
    ASSERT_TRUE(builder.write(whole).ok());

    AssertRecorder assertions;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    std::mt19937 engine(20261120);
    int built = 0;
    for (int round = 0; round < 400; ++round) {
        std::vector<unsigned char> bytes = whole;
        const int flips = 1 + static_cast<int>(engine() % 6);
        for (int i = 0; i < flips; ++i) {
            bytes[1000 + engine() % (bytes.size() - 1000)] =
                static_cast<unsigned char>(engine() % 4 == 0 ? 0 : engine());
        }
        const TemporaryFile file(bytes);
        ZQNetLoader loader;
        loader.LoadFile(file.path(), engine() % 2 == 0);
        TarnoNet net;
        net.load_tarno_net_with_inference_config(loader, nullptr);
        TarnoNetExtractor extractor = net.create_extractor();
        extractor.input(0, random_tensor(4, 8, 8, 1));
        extractor.input(1, random_tensor(3, 1, 16, 2));
        Mat out;
        extractor.extract(extractor.get_last_layer_index(), out);
        built += net.layers.empty() ? 0 : 1;
    }
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    EXPECT_GT(built, 200);  // else the mutations would test the reader alone
}

}  // namespace
