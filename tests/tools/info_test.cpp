#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/command.h"

namespace {

using namespace command_test;
using Json = nlohmann::json;

/// Two convolutions, their sum, and a map.
void save_small_model(const std::string& path) {
    modelkit::ModelHeader header;
    header.model_id = 301002003;
    header.application_type = 7;
    header.gesture_mode = 9;
    header.base_w = 32;
    header.base_h = 24;
    modelkit::NetBuilder net(header);
    const int image = net.input(3);
    const int a = net.conv(image, 8, 3, 2, 1, ActivationType_ReLU);
    const int b = net.depthwise(a, 3, 1, 1);
    const int sum = net.eltwise({a, b}, 0, ActivationType_LeakyReLU);
    net.conv(sum, 1, 1, 1, 0, ActivationType_Sigmoid);
    const modelkit::Status saved = net.save(path);
    ASSERT_TRUE(saved.ok()) << saved.message();
}

class Info : public testing::Test {
protected:
    void SetUp() override { save_small_model(model); }
    Folder folder;
    std::string model = folder / "small.zqnet";
};

TEST_F(Info, ShowsHeaderIdentityLayersAndTotals) {
    const Outcome outcome = run_tarno({"info", model});
    expect_success(outcome);
    for (const char* part : {"Background_Segmentation_1.2.3", "301002003", "32 x 24", "10011",
                             "Conv2D", "DepthWiseConv2D", "ElementWiseOperator", "8x12x16",
                             "LeakyReLU", "Sigmoid", "5 layers"}) {
        EXPECT_NE(outcome.out.find(part), std::string::npos) << part << " in\n" << outcome.out;
    }
}

TEST_F(Info, JsonHasTheNumbersOfEveryLayer) {
    const Outcome outcome = run_tarno({"info", "--json", model});
    expect_success(outcome);
    const Json json = Json::parse(outcome.out);
    EXPECT_EQ(json["identity"], "Background_Segmentation_1.2.3");
    EXPECT_EQ(json["header"]["version"], 10011);
    EXPECT_EQ(json["header"]["gesture_mode"], 9);
    EXPECT_EQ(json["header"]["application_type"], 7);
    EXPECT_EQ(json["bytes"], std::filesystem::file_size(model));
    EXPECT_TRUE(json["refusal"].is_null());
    ASSERT_EQ(json["layers"].size(), 5u);

    const Json& conv = json["layers"][1];
    EXPECT_EQ(conv["kind"], "Conv2D");
    EXPECT_EQ(conv["bottoms"], Json({0}));
    EXPECT_EQ(conv["shape"], Json({8, 12, 16}));
    EXPECT_EQ(conv["kernel"], (Json{{"w", 3}, {"h", 3}}));
    EXPECT_EQ(conv["stride"], (Json{{"w", 2}, {"h", 2}}));
    EXPECT_EQ(conv["pad"], (Json{{"w", 1}, {"h", 1}}));
    EXPECT_EQ(conv["activation"], "ReLU");
    EXPECT_EQ(conv["parameters"], 8 * 3 * 9 + 8);
    EXPECT_EQ(conv["multiply_adds"], 8 * 3 * 9 * 12 * 16);
    EXPECT_EQ(conv["read_count"], 2);

    const Json& depthwise = json["layers"][2];
    EXPECT_EQ(depthwise["parameters"], 8 * 9 + 8);
    EXPECT_EQ(depthwise["multiply_adds"], 8 * 9 * 12 * 16);
    EXPECT_TRUE(depthwise["activation"].is_null());

    EXPECT_EQ(json["layers"][3]["bottoms"], Json({1, 2}));
    EXPECT_EQ(json["layers"][3]["detail"], "sum");
    EXPECT_EQ(json["layers"][4]["read_count"], 0);

    EXPECT_EQ(json["totals"]["layers"], 5);
    EXPECT_EQ(json["totals"]["parameters"], (8 * 27 + 8) + (8 * 9 + 8) + (8 + 1));
    EXPECT_EQ(json["totals"]["multiply_adds"], (8 * 27 + 8 * 9 + 8) * 12 * 16);
}

TEST_F(Info, SizeTakesThePlaceOfTheBaseSize) {
    const Json json = Json::parse(run_tarno({"info", "--json", "--size", "64x10", model}).out);
    EXPECT_EQ(json["base_size"], (Json{{"w", 64}, {"h", 10}}));
    EXPECT_EQ(json["layers"][0]["shape"], Json({3, 10, 64}));
    EXPECT_EQ(json["layers"][1]["shape"], Json({8, 5, 32}));
}

TEST_F(Info, ABaseSizeOfZeroIs256) {
    modelkit::ModelHeader header;
    header.base_w = 0;
    header.base_h = 0;
    modelkit::NetBuilder net(header);
    net.input(1);
    // The builder has no pixels to work out a factor from.
    auto* input = net.record(0);
    input->out_shape->scale_x = 0x3c00;
    input->out_shape->scale_y = 0x3800;
    ASSERT_TRUE(net.save(model).ok()) << net.status().message();
    const Json json = Json::parse(run_tarno({"info", "--json", model}).out);
    EXPECT_EQ(json["layers"][0]["shape"], Json({1, 128, 256}));
}

TEST_F(Info, DotIsAGraphOfAllLayersAndEdges) {
    const Outcome outcome = run_tarno({"info", "--dot", model});
    expect_success(outcome);
    EXPECT_EQ(outcome.out.compare(0, 8, "digraph "), 0);
    for (const char* edge : {"layer_0 -> layer_1;", "layer_1 -> layer_2;", "layer_1 -> layer_3;",
                             "layer_2 -> layer_3;", "layer_3 -> layer_4;"}) {
        EXPECT_NE(outcome.out.find(edge), std::string::npos) << edge;
    }
    EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '{'),
              std::count(outcome.out.begin(), outcome.out.end(), '}'));
}

TEST_F(Info, AFileNameWithQuotesAndLineEndsIsHarmless) {
    const std::string odd = folder / "a \"b\"\n\xff.zqnet";
    std::filesystem::copy_file(model, odd);
    const Outcome json = run_tarno({"info", "--json", odd});
    expect_success(json);
    EXPECT_NO_THROW(Json::parse(json.out));
    std::filesystem::resize_file(odd, 1010);
    expect_refusal(run_tarno({"info", odd}), 1, {"not a sound model"});
}

TEST_F(Info, NotesSayWhatTheCpuEngineDoesInItsOwnWay) {
    modelkit::ModelHeader header;
    header.base_w = 16;
    header.base_h = 16;
    modelkit::NetBuilder net(header);
    const int image = net.input(4);
    const int grouped = net.conv(image, 4, modelkit::Window::square(3, 1, 1), 0, 2);
    const int larger = net.upsampling(grouped, 4.0);
    net.pooling(larger, 1, modelkit::Window{3, 3, 1, 0, 1, 1});
    const modelkit::Status saved = net.save(model);
    ASSERT_TRUE(saved.ok()) << saved.message();
    const Outcome outcome = run_tarno({"info", model});
    expect_success(outcome);
    for (const char* part : {"layer 1 (Conv2D): groups 2", "layer 2 (Upsampling): bilinear by 4",
                             "layer 3 (Pooling): padding 1x0"}) {
        EXPECT_NE(outcome.out.find(part), std::string::npos) << part << " in\n" << outcome.out;
    }
}

TEST_F(Info, AModelWithALayerThatOnlyTheOtherEngineHasIsShownWithStatus1) {
    modelkit::NetBuilder net;
    const int image = net.input(3);
    const int normal = net.instance_normalization(image);
    net.conv(normal, 2, 1, 1, 0);
    ASSERT_TRUE(net.save(model).ok());
    const Outcome outcome = run_tarno({"info", model});
    expect_refusal(outcome, 1, {model, "layer 1 (InstanceNormalization)", "expected", "found"});
    EXPECT_NE(outcome.out.find("3 layers"), std::string::npos);
    const Json json = Json::parse(run_tarno({"info", "--json", model}).out);
    EXPECT_TRUE(json["layers"][2]["shape"].is_null());
    EXPECT_TRUE(json["refusal"].is_string());
}

}  // namespace
