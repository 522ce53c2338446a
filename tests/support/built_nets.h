// Nets built from what modelkit made, for the tests of the construction.
#pragma once

#include <gtest/gtest.h>
#include <tarno/cpu.h>
#include <tarno/model.h>

#include <memory>
#include <string>
#include <vector>

#include "modelkit/net_builder.h"
#include "support/temporary_file.h"

namespace testing_support {

using modelkit::ModelHeader;
using modelkit::NetBuilder;
using namespace TarnoCPU;

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

inline std::unique_ptr<TarnoNet> net_of(const NetBuilder& builder,
                                        const LayerInferenceConfig* configs = nullptr) {
    const Loaded loaded(builder);
    auto net = std::make_unique<TarnoNet>();
    net->load_tarno_net_with_inference_config(loaded.loader, configs);
    return net;
}

inline LayerInferenceConfig config_of(const char* name) {
    return {name != nullptr ? find_operator(name)->creator : nullptr, 0, 0};
}

inline std::vector<std::string> types_of(const TarnoNet& net) {
    std::vector<std::string> types;
    for (const Layer* layer : net.layers) types.push_back(layer->type);
    return types;
}

inline std::vector<std::string> operators_of(const TarnoNet& net) {
    std::vector<std::string> names;
    for (Layer* layer : net.layers) names.push_back(layer->operator_name());
    return names;
}

inline Mat run(const TarnoNet& net, const Mat& in, int layer = -1, int expected = 0) {
    TarnoNetExtractor extractor = net.create_extractor();
    EXPECT_EQ(0, extractor.input(0, in));
    Mat out;
    EXPECT_EQ(expected,
              extractor.extract(layer < 0 ? extractor.get_last_layer_index() : layer, out));
    return out;
}

inline ModelHeader small_header(unsigned int version = 10011) {
    ModelHeader header;
    header.version = version;
    header.base_w = 8;
    header.base_h = 8;
    return header;
}

}  // namespace testing_support
