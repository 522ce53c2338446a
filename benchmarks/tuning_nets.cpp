// tuning_nets FOLDER
//
// Writes the networks of the tuning benchmark, with random weights: a depthwise-separable
// classifier and a residual net at 224 x 224, and a 3x3 encoder-decoder at 256 x 256.
#include <modelkit/net_builder.h>

#include <cstdio>
#include <string>

namespace {

using modelkit::NetBuilder;
using modelkit::Window;

modelkit::ModelHeader header_of(unsigned int size) {
    modelkit::ModelHeader header;
    header.base_w = size;
    header.base_h = size;
    return header;
}

/// Thirteen pairs of a depthwise 3x3 and a 1x1 convolution, halved five times, then an average and
/// a 1x1 convolution to 100 classes.
NetBuilder separable_classifier() {
    NetBuilder net(header_of(224), 1);
    int at = net.conv(net.input(3), 16, 3, 2, 1, ActivationType_ReLU);
    const int channels[] = {32, 64, 64, 128, 128, 256, 256, 256, 256, 256, 256, 512, 512};
    const int strides[] = {1, 2, 1, 2, 1, 2, 1, 1, 1, 1, 1, 2, 1};
    for (int i = 0; i < 13; ++i) {
        at = net.depthwise(at, 3, strides[i], 1, ActivationType_ReLU);
        at = net.conv(at, channels[i], 1, 1, 0, ActivationType_ReLU);
    }
    at = net.pooling(at, 0, 7, 7);
    net.conv(at, 100, 1, 1, 0);
    return net;
}

/// 3x3 convolutions down to 16 x 16 and back up, with skips.
NetBuilder encoder_decoder() {
    NetBuilder net(header_of(256), 2);
    const int channels[] = {16, 32, 64, 128};
    int skips[4];
    int at = net.input(3);
    for (int i = 0; i < 4; ++i) {
        at = net.conv(at, channels[i], 3, 2, 1, ActivationType_ReLU);
        at = skips[i] = net.conv(at, channels[i], 3, 1, 1, ActivationType_ReLU);
    }
    for (int i = 2; i >= 0; --i) {
        at = net.concat({net.upsampling(at, 2.0), skips[i]});
        at = net.conv(at, channels[i], 3, 1, 1, ActivationType_ReLU);
    }
    at = net.upsampling(net.conv(at, 4, 3, 1, 1, ActivationType_ReLU), 2.0);
    net.conv(at, 1, 3, 1, 1, ActivationType_Sigmoid);
    return net;
}

/// Residual blocks of two 3x3 convolutions at 56, 28 and 14 pixels.
NetBuilder residual() {
    NetBuilder net(header_of(224), 3);
    int at = net.conv(net.input(3), 16, 3, 2, 1, ActivationType_ReLU);
    const int channels[] = {32, 64, 128};
    for (const int width : channels) {
        at = net.conv(at, width, 3, 2, 1, ActivationType_ReLU);
        for (int block = 0; block < 2; ++block) {
            const int first = net.conv(at, width, 3, 1, 1, ActivationType_ReLU);
            at = net.eltwise({at, net.conv(first, width, 3, 1, 1)}, 0, ActivationType_ReLU);
        }
    }
    at = net.pooling(at, 0, 14, 14);
    net.conv(at, 100, 1, 1, 0);
    return net;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: tuning_nets FOLDER\n");
        return 2;
    }
    struct {
        const char* name;
        NetBuilder net;
    } nets[] = {{"separable_classifier_224", separable_classifier()},
                {"encoder_decoder_256", encoder_decoder()},
                {"residual_224", residual()}};
    for (auto& each : nets) {
        const std::string path = std::string(argv[1]) + "/" + each.name + ".zqnet";
        const modelkit::Status status = each.net.save(path);
        if (!status.ok()) {
            std::fprintf(stderr, "tuning_nets: %s: %s\n", path.c_str(), status.message().c_str());
            return 1;
        }
    }
    return 0;
}
