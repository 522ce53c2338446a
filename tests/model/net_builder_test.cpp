#include <gtest/gtest.h>
#include <modelkit/net_builder.h>
#include <modelkit/records.h>
#include <tarno/model.h>

#include <string>
#include <vector>

#include "hand_made.h"
#include "support/temporary_file.h"

namespace {

using modelkit::ModelHeader;
using modelkit::NetBuilder;
using modelkit::Status;
using modelkit::Window;
using testing_support::TemporaryFile;

ModelHeader header_of_version(unsigned int version) {
    ModelHeader header;
    header.version = version;
    return header;
}

void expect_size(const NetBuilder& net, int id, int width, int height, int channels) {
    EXPECT_EQ(width, net.size(id).width);
    EXPECT_EQ(height, net.size(id).height);
    EXPECT_EQ(channels, net.size(id).channels);
}

// A network of every layer that a version knows.
void build_everything(NetBuilder& net, unsigned int version) {
    const int image = net.input(8);
    int at = net.conv(image, 8, 3, 2, 1, ActivationType_ReLU);
    const int skip = at;
    at = net.depthwise(at, 3, 1, 1);
    at = net.eltwise({at, skip}, 0, ActivationType_ReLU6);
    at = net.concat({at, skip});
    at = net.pooling(at, 1, 2, 2);
    at = net.upsampling(at, 2.0, 1, version >= 10007 ? 1 : 0);
    at = net.pixel_shuffle(at, 2.0);
    at = net.batchnorm(at);
    at = net.instance_normalization(at);
    at = net.activation(at, ActivationType_Linear, 2.0, -1.0);
    at = net.channel_shuffle(at);
    at = net.deconvolution(at, 3, 4, 2, 1);
    if (version >= 10003) at = net.depthwise_deconvolution(at, 3, 1, 1);
    net.region(at, 1, 2, 3);
    if (version >= 10008) {
        int tensor = net.tensor_input({4, 8});
        tensor = net.reshape(tensor, {1, 32});
        tensor = net.transpose(tensor, {1, 0}, {32, 1});
        tensor = net.squeeze(tensor, 1, {32});
        tensor = net.fully_connected(tensor, 32, 4);
        tensor = net.lstm(tensor, 4, 3, true, true, 2);
        if (version >= 10011) net.tensor_activation(tensor, ActivationType_Tanh);
    }
}

TEST(NetBuilder, ANetworkOfEveryLayerOfEveryVersionCanBeReadBack) {
    for (const unsigned int version : {10000u, 10001u, 10003u, 10007u, 10008u, 10009u, 10011u}) {
        NetBuilder net(header_of_version(version));
        build_everything(net, version);
        std::vector<unsigned char> bytes;
        const Status status = net.write(bytes);
        ASSERT_TRUE(status) << version << ": " << status.message();
        const TemporaryFile file(bytes);
        ZQNetLoader loader;
        ASSERT_TRUE(loader.LoadFile(file.path(), false)) << loader.failure();
        ASSERT_EQ(static_cast<size_t>(net.count()), loader.getSequentialLayers().size());
        EXPECT_EQ(hand_made::types_of(version).size(), static_cast<size_t>(net.count()))
            << "each type once";
        for (const auto& [id, record] : loader.getLayersInfo()) {
            EXPECT_EQ("", modelkit::difference(*net.record(id), *record));
        }
    }
}

TEST(NetBuilder, SizesFollowTheLayers) {
    NetBuilder net;
    const int image = net.input(3);
    expect_size(net, image, 256, 256, 3);
    expect_size(net, net.input(4, 0.5, 0.25), 128, 64, 4);
    expect_size(net, net.conv(image, 8, 3, 1, 1), 256, 256, 8);
    expect_size(net, net.conv(image, 8, 3, 2, 1), 128, 128, 8);
    expect_size(net, net.conv(image, 8, 3, 1, 0), 254, 254, 8);
    expect_size(net, net.conv(image, 8, 1, 2, 0), 128, 128, 8);
    expect_size(net, net.conv(image, 8, Window{1, 7, 0, 3, 1, 2, 1, 1}), 256, 128, 8);
    expect_size(net, net.conv(image, 8, Window::square(3, 1, 2, 2)), 256, 256, 8);
    expect_size(net, net.depthwise(image, 3, 2, 1), 128, 128, 3);
    expect_size(net, net.depthwise(image, Window::square(3, 1, 1), 0, 2), 256, 256, 6);
    expect_size(net, net.deconvolution(image, 5, 4, 2, 1), 512, 512, 5);
    expect_size(net, net.depthwise_deconvolution(image, 3, 1, 1), 256, 256, 3);
    expect_size(net, net.pooling(image, 0, 3, 2), 127, 127, 3);
    expect_size(net, net.upsampling(image, 4.0), 1024, 1024, 3);
    expect_size(net, net.eltwise({image, image}), 256, 256, 3);
    expect_size(net, net.concat({image, image, image}), 256, 256, 9);
    const int deep = net.conv(image, 8, 3, 1, 1);
    expect_size(net, net.pixel_shuffle(deep, 2.0), 512, 512, 2);
    expect_size(net, net.pixel_shuffle(deep, 0.5), 128, 128, 32);
    EXPECT_TRUE(net.status()) << net.status().message();
}

TEST(NetBuilder, AConvolutionAndADepthwiseOneDifferOnOddSizes) {
    ModelHeader header;
    header.base_w = 7;
    header.base_h = 7;
    NetBuilder net(header);
    const int image = net.input(4);
    expect_size(net, net.conv(image, 4, 3, 2, 1), 3, 3, 4);
    expect_size(net, net.depthwise(image, 3, 2, 1), 4, 4, 4);
}

TEST(NetBuilder, ShapesAreWrittenAsFactorsOfTheBaseSize) {
    NetBuilder net;
    const int image = net.input(3);
    const int half = net.conv(image, 8, 3, 2, 1);
    const auto* record = net.record(half);
    EXPECT_EQ(0x3c00, record->in_shape->scale_x);
    EXPECT_EQ(3, record->in_shape->channels);
    EXPECT_EQ(0x3800, record->out_shape->scale_x);
    EXPECT_EQ(0x3800, record->out_shape->scale_y);
    EXPECT_EQ(8, record->out_shape->channels);
}

TEST(NetBuilder, GivenWeightsAreRoundedToHalvesInTheirOrder) {
    NetBuilder net;
    const int image = net.input(2);
    const int id = net.conv(image, 1, 1, 1, 0, 0, {{1.0f, 2.00001f}, {-0.5f}});
    const auto* record = dynamic_cast<ZQLayerInfo_Conv2D*>(net.record(id));
    ASSERT_NE(nullptr, record);
    ASSERT_EQ(2u, record->weights_count);
    EXPECT_EQ(1.0f, record->weights[0]);
    EXPECT_EQ(2.0f, record->weights[1]);
    EXPECT_EQ(0x4000, record->weights_half[1]);
    EXPECT_EQ(-0.5f, record->bias[0]);
}

TEST(NetBuilder, GeneratedWeightsDependOnTheSeedAndOnNothingElse) {
    const auto bytes_of = [](uint32_t seed) {
        NetBuilder net(ModelHeader(), seed);
        build_everything(net, 10011);
        std::vector<unsigned char> bytes;
        EXPECT_TRUE(net.write(bytes));
        return bytes;
    };
    EXPECT_EQ(bytes_of(1), bytes_of(1));
    EXPECT_NE(bytes_of(1), bytes_of(2));
}

TEST(NetBuilder, AlphaAndBetaAreHalvesInOneActivationRecordAndNumbersInTheOther) {
    NetBuilder net;
    const int id = net.activation(net.input(1), ActivationType_Linear, 2.0, -0.5);
    const auto* scaled = dynamic_cast<ZQLayerInfo_Activation*>(net.record(id));
    EXPECT_EQ(0x4000, scaled->alpha);
    EXPECT_EQ(0xb800, scaled->beta);
    const int tensor = net.tensor_activation(net.tensor_input({1}), ActivationType_Linear, 2, 7);
    const auto* plain = dynamic_cast<ZQLayerInfo_TensorActivation*>(net.record(tensor));
    EXPECT_EQ(2, plain->alpha);
    EXPECT_EQ(7, plain->beta);
}

TEST(NetBuilder, InputsAreNumberedInTheirOrder) {
    NetBuilder net;
    net.input(1);
    net.tensor_input({1, 2});
    const int third = net.input(1);
    EXPECT_EQ(2, dynamic_cast<ZQLayerInfo_Input*>(net.record(third))->input_index);
}

TEST(NetBuilder, TheFirstMistakeIsReported) {
    const auto mistake = [](auto build) {
        NetBuilder net;
        const int image = net.input(4);
        build(net, image);
        std::vector<unsigned char> bytes;
        EXPECT_EQ(net.status().message(), net.write(bytes).message());
        EXPECT_FALSE(net.save("/no/such/folder/file"));
        EXPECT_TRUE(bytes.empty());
        return net.status().message();
    };
    EXPECT_EQ("layer 1: bottom 7 is not there",
              mistake([](NetBuilder& net, int) { net.conv(7, 1, 1, 1, 0); }));
    EXPECT_EQ("layer 1: bottom -1 is not there", mistake([](NetBuilder& net, int image) {
                  net.concat({image, -1});
              }));
    EXPECT_EQ("layer 1: bottom 1 is not there", mistake([](NetBuilder& net, int image) {
                  net.eltwise({image, 1});
              }));
    EXPECT_EQ("layer 1: groups: a divisor of the channels expected, found 3",
              mistake([](NetBuilder& net, int image) {
                  net.conv(image, 6, Window::square(1, 1, 0), 0, 3);
              }));
    EXPECT_EQ("layer 1: weights: 8 numbers expected, found 1",
              mistake([](NetBuilder& net, int image) {
                  net.conv(image, 2, 1, 1, 0, 0, {{1.0f}, {}});
                  net.conv(99, 1, 1, 1, 0);
              }));
    EXPECT_EQ("layer 2: bottoms of one size expected", mistake([](NetBuilder& net, int image) {
                  net.eltwise({image, net.conv(image, 2, 1, 1, 0)});
              }));
    EXPECT_EQ("layer 1: 1 to 10 bottoms expected, found 11",
              mistake([](NetBuilder& net, int image) { net.concat(std::vector<int>(11, image)); }));
    EXPECT_EQ("layer 1: kernel_w: 0 to 65535 expected, found -1",
              mistake([](NetBuilder& net, int image) {
                  net.pooling(image, 0, Window{-1, 1, 0, 0, 1, 1, 1, 1});
              }));
    EXPECT_EQ("layer 1: scale: 1000000.000000 does not fit a half",
              mistake([](NetBuilder& net, int image) { net.upsampling(image, 1e6); }));
    EXPECT_EQ("layer 1: dims: at most 11 expected, found 12",
              mistake([](NetBuilder& net, int) { net.tensor_input(std::vector<int>(12, 1)); }));
}

TEST(NetBuilder, ALayerTooNewForTheVersionIsReportedWhenTheFileIsWritten) {
    NetBuilder net(header_of_version(10007));
    net.tensor_input({1});
    std::vector<unsigned char> bytes;
    EXPECT_NE(std::string::npos, net.write(bytes).message().find("version 10008 or above"));
}

TEST(NetBuilder, SavedFilesAreThoseThatAreWritten) {
    NetBuilder net;
    build_everything(net, 10011);
    const TemporaryFile file;
    ASSERT_TRUE(net.save(file.path()));
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(net.write(bytes));
    EXPECT_EQ(bytes, file.read());
}

}  // namespace
