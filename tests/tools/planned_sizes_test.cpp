// What `tarno info` works out without running a layer must be what the layers make.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/array_files.h"
#include "tools/command.h"

namespace {

using namespace command_test;
using Json = nlohmann::json;
using modelkit::NetBuilder;
using modelkit::Window;

struct Case {
    const char* name;
    int channels;
    int w;
    int h;
    std::function<void(NetBuilder&, int)> build;  ///< behind an input, whose id it gets
};

class PlannedSizes : public testing::TestWithParam<Case> {};

std::string random_array(int c, int h, int w) {
    std::vector<float> values(static_cast<size_t>(c) * h * w);
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<float>(i * 2654435761u % 1000) / 1000.0f;
    }
    return npy_file(
        "<f4", "(" + std::to_string(c) + ", " + std::to_string(h) + ", " + std::to_string(w) + ")",
        raw(values));
}

/// The last file of a layer, which is behind its fused activation.
std::string blob_of(const Folder& folder, int id) {
    std::string last;
    const std::string mark = "_" + std::to_string(id) + "_";
    for (const auto& entry : std::filesystem::directory_iterator(folder / "blobs")) {
        const std::string name = entry.path().filename().string();
        if (name.find(mark) == 3 && name > last) last = name;
    }
    return folder / ("blobs/" + last);
}

TEST_P(PlannedSizes, AreWhatTheLayersMake) {
    const Case& each = GetParam();
    const Folder folder;
    modelkit::ModelHeader header;
    header.base_w = static_cast<unsigned int>(each.w);
    header.base_h = static_cast<unsigned int>(each.h);
    NetBuilder net(header);
    each.build(net, net.input(each.channels));
    const modelkit::Status saved = net.save(folder / "m.zqnet");
    ASSERT_TRUE(saved.ok()) << saved.message();
    write_file(folder / "in.npy", random_array(each.channels, each.h, each.w));

    const Outcome info = run_tarno({"info", "--json", folder / "m.zqnet"});
    expect_success(info);
    const Outcome run = run_tarno({"run", "--model", folder / "m.zqnet", "--input",
                                   folder / "in.npy", "--all-layers", folder / "blobs"});
    expect_success(run);
    EXPECT_EQ(run.out.compare(0, 6, "wrote "), 0);
    const Json json = Json::parse(info.out);
    for (const Json& layer : json["layers"]) {
        const Array blob = read_array(blob_of(folder, layer["id"]));
        EXPECT_EQ(layer["shape"], Json({blob.c, blob.h, blob.w})) << layer.dump();
    }
}

const Case cases[] = {
    {"Conv3x3", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 3, 1, 1, 2); }},
    {"Conv3x3Unpadded", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 3, 1, 0); }},
    {"Conv3x3PaddedOneWay", 3, 13, 9,
     [](NetBuilder& n, int i) {
         n.conv(i, 4, Window{3, 3, 1, 0, 1, 1});
     }},
    {"Conv3x3PaddedTwice", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 3, 1, 2); }},
    {"Conv3x3Stride2OfOddSize", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 3, 2, 1); }},
    {"Conv1x1", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 1, 1, 0, 4); }},
    {"Conv1x1Stride2OfOddSize", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 1, 2, 0); }},
    {"Conv5x5", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 5, 1, 2); }},
    {"Conv5x5Unpadded", 3, 13, 9, [](NetBuilder& n, int i) { n.conv(i, 4, 5, 1, 0); }},
    {"Conv3x3Dilated", 3, 13, 9,
     [](NetBuilder& n, int i) { n.conv(i, 4, Window::square(3, 1, 2, 2)); }},
    {"Conv7x1Stride3x2", 3, 13, 9,
     [](NetBuilder& n, int i) {
         n.conv(i, 4, Window{7, 1, 3, 0, 3, 2});
     }},
    {"ConvGrouped", 4, 12, 8,
     [](NetBuilder& n, int i) { n.conv(i, 4, Window::square(3, 1, 1), 0, 2); }},
    {"Depthwise", 4, 13, 9, [](NetBuilder& n, int i) { n.depthwise(i, 3, 1, 1, 8); }},
    {"DepthwiseStride2OfOddSize", 4, 13, 9, [](NetBuilder& n, int i) { n.depthwise(i, 3, 2, 1); }},
    {"DepthwiseUnpadded5x3", 4, 13, 9,
     [](NetBuilder& n, int i) {
         n.depthwise(i, Window{5, 3, 0, 0, 1, 2});
     }},
    {"DepthwiseOfTwoFilters", 4, 13, 9,
     [](NetBuilder& n, int i) { n.depthwise(i, Window::square(3, 1, 1), 0, 2); }},
    {"Deconvolution3x3", 3, 7, 5, [](NetBuilder& n, int i) { n.deconvolution(i, 4, 3, 1, 1, 2); }},
    {"Deconvolution4x4Stride2", 3, 7, 5,
     [](NetBuilder& n, int i) { n.deconvolution(i, 4, 4, 2, 1); }},
    {"Deconvolution2x2Stride2Unpadded", 3, 7, 5,
     [](NetBuilder& n, int i) { n.deconvolution(i, 4, 2, 2, 0); }},
    {"DepthwiseDeconvolution", 4, 7, 5,
     [](NetBuilder& n, int i) { n.depthwise_deconvolution(i, 4, 2, 1, 3); }},
    {"PixelShuffleUp", 8, 7, 5, [](NetBuilder& n, int i) { n.pixel_shuffle(i, 2.0); }},
    {"PixelShuffleDown", 2, 6, 4, [](NetBuilder& n, int i) { n.pixel_shuffle(i, 0.5); }},
    {"MaximumPooling", 3, 13, 9, [](NetBuilder& n, int i) { n.pooling(i, 1, 3, 2, 1); }},
    {"AveragePoolingOfOddSize", 3, 13, 9, [](NetBuilder& n, int i) { n.pooling(i, 0, 2, 2); }},
    {"PoolingPaddedOneWay", 3, 13, 9,
     [](NetBuilder& n, int i) {
         n.pooling(i, 1, Window{3, 2, 1, 0, 1, 1});
     }},
    {"BatchNormalization", 3, 13, 9, [](NetBuilder& n, int i) { n.batchnorm(i); }},
    {"Activations", 3, 13, 9,
     [](NetBuilder& n, int i) {
         for (const int kind : {1, 2, 3, 4, 6, 8})
             i = n.activation(i, kind, 0.5, 0.25);
     }},
    {"SoftMax", 5, 1, 1, [](NetBuilder& n, int i) { n.activation(i, 7); }},
    {"Region", 16, 11, 11, [](NetBuilder& n, int i) { n.region(i, 2, 4, 3); }},
    {"RegionOfAnotherSize", 16, 9, 5, [](NetBuilder& n, int i) { n.region(i, 2, 4, 3); }},
    {"Eltwise", 3, 13, 9,
     [](NetBuilder& n, int i) {
         const int a = n.conv(i, 4, 3, 1, 1);
         const int b = n.conv(i, 4, 1, 1, 0);
         n.eltwise({a, b, a}, 2, 2);
     }},
    {"ConcatOfChannels", 3, 13, 9,
     [](NetBuilder& n, int i) {
         n.concat({n.conv(i, 4, 3, 1, 1), i, n.conv(i, 2, 1, 1, 0)});
     }},
    {"UpsamplingBy2", 4, 7, 5, [](NetBuilder& n, int i) { n.upsampling(i, 2.0); }},
    {"UpsamplingBy2OfOddChannels", 3, 7, 5,
     [](NetBuilder& n, int i) { n.upsampling(i, 2.0, 1, 1); }},
    {"UpsamplingBy8Aligned", 3, 7, 5, [](NetBuilder& n, int i) { n.upsampling(i, 8.0, 1, 1); }},
    {"UpsamplingBy4Nearest", 3, 7, 5, [](NetBuilder& n, int i) { n.upsampling(i, 4.0, 0); }},
    {"Dense", 3, 4, 2,
     [](NetBuilder& n, int i) {
         const int row = n.reshape(i, {1, 24});
         const int hidden = n.fully_connected(row, 24, 8);
         const int active = n.tensor_activation(hidden, 3);
         n.fully_connected(active, 8, 4, false);
     }},
    {"DenseOverPlanes", 3, 4, 2, [](NetBuilder& n, int i) { n.fully_connected(i, 24, 8); }},
    {"Lstm", 6, 5, 1, [](NetBuilder& n, int i) { n.lstm(i, 5, 3); }},
    {"LstmOfBothDirections", 6, 5, 1, [](NetBuilder& n, int i) { n.lstm(i, 5, 3, false, true); }},
    {"LstmOfTwoLayers", 6, 5, 1, [](NetBuilder& n, int i) { n.lstm(i, 5, 3, true, false, 2); }},
};

INSTANTIATE_TEST_SUITE_P(Tools, PlannedSizes, testing::ValuesIn(cases),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

}  // namespace
