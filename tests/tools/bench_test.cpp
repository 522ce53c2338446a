// The form of the report. No test looks at how long something took.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/command.h"

namespace {

using namespace command_test;
using Json = nlohmann::json;

class Bench : public testing::Test {
protected:
    void SetUp() override {
        modelkit::ModelHeader header;
        header.base_w = 32;
        header.base_h = 24;
        modelkit::NetBuilder net(header);
        const int image = net.input(3);
        const int a = net.conv(image, 8, 3, 2, 1, ActivationType_ReLU);
        const int b = net.depthwise(a, 3, 1, 1);
        net.conv(net.eltwise({a, b}), 1, 3, 1, 1, ActivationType_Sigmoid);
        ASSERT_TRUE(net.save(model).ok()) << net.status().message();
    }
    Folder folder;
    std::string model = folder / "net.zqnet";
};

TEST_F(Bench, JsonHasAllParts) {
    const Outcome outcome =
        run_tarno({"bench", "--model", model, "--json", "--runs", "7", "--warmup", "2"});
    expect_success(outcome);
    const Json json = Json::parse(outcome.out);
    EXPECT_GE(json["setup_ms"]["read"].get<double>(), 0.0);
    EXPECT_GE(json["setup_ms"]["build"].get<double>(), 0.0);
    EXPECT_GT(json["first_run_ms"].get<double>(), 0.0);
    EXPECT_GE(json["warmup_runs"], 2);
    const Json& steady = json["steady_ms"];
    EXPECT_EQ(steady["count"], 7);
    const double ordered[] = {steady["min"], steady["p50"], steady["p90"], steady["p99"],
                              steady["max"]};
    for (int i = 0; i < 4; ++i)
        EXPECT_LE(ordered[i], ordered[i + 1]);
    // Nearest rank: of seven samples the 90th percentile is the seventh.
    EXPECT_EQ(steady["p90"], steady["max"]);

    // Input, convolution, ReLU, depthwise, sum, convolution, sigmoid.
    ASSERT_EQ(json["layers"].size(), 7u);
    EXPECT_EQ(json["profiled_runs"], 7);
    double share = 0.0, sum = 0.0;
    for (const Json& layer : json["layers"]) {
        share += layer["share"].get<double>();
        sum += layer["ms"].get<double>();
        EXPECT_NEAR(layer["cumulative_share"].get<double>(), share, 1e-9);
    }
    EXPECT_NEAR(share, 1.0, 1e-9);
    EXPECT_EQ(json["layers"][1]["operator"], "Convolution_3x3s2_Float_SGEMM");
    EXPECT_EQ(json["layers"][1]["shape"], Json({8, 12, 16}));
    EXPECT_EQ(json["layers"][1]["multiply_adds"], 8 * 27 * 12 * 16);
    EXPECT_EQ(json["layers"][2]["kind"], "fused activation");
    EXPECT_EQ(json["layers"][2]["id"], 1);

    double kinds = 0.0;
    int layers = 0;
    for (const Json& kind : json["kinds"]) {
        kinds += kind["ms"].get<double>();
        layers += kind["count"].get<int>();
    }
    EXPECT_NEAR(kinds, sum, 1e-9);
    EXPECT_EQ(layers, 7);
    for (size_t i = 1; i < json["kinds"].size(); ++i) {
        EXPECT_GE(json["kinds"][i - 1]["ms"], json["kinds"][i]["ms"]);
    }
}

TEST_F(Bench, MemoryWithoutLightModeHoldsAllTensorsAtOnce) {
    const Json json =
        Json::parse(run_tarno({"bench", "--model", model, "--json", "--runs", "1"}).out);
    const Json& memory = json["memory"];
    EXPECT_GT(memory["peak_resident_bytes"].get<int64_t>(), 1 << 20);
    // The outputs of convolution, depthwise, sum and convolution; the activations work in place and
    // the input is the host's.
    const int64_t outputs = 3 * 8 * 12 * 16 * 4 + 12 * 16 * 4;
    const int64_t light = memory["pools_with_light_mode"]["peak_bytes"];
    const int64_t full = memory["pools_without_light_mode"]["peak_bytes"];
    EXPECT_GE(full, outputs);
    EXPECT_LT(light, full);
    EXPECT_GE(memory["pools_with_light_mode"]["held_bytes"].get<int64_t>(), light);
    EXPECT_GE(memory["pools_without_light_mode"]["held_bytes"].get<int64_t>(), full);
    // The largest step: the sum beside its two bottoms, or the last convolution with its columns.
    EXPECT_GE(light, 3 * 8 * 12 * 16 * 4);
}

TEST_F(Bench, AWarmRunMakesNoHeapCalls) {
    const Json json =
        Json::parse(run_tarno({"bench", "--model", model, "--json", "--runs", "1"}).out);
    if (sanitized) {
        EXPECT_TRUE(json["heap_calls_per_run"].is_null());
        return;
    }
    EXPECT_EQ(json["heap_calls_per_run"]["allocations"], 0);
    EXPECT_EQ(json["heap_calls_per_run"]["frees"], 0);
}

TEST_F(Bench, PacedRunsReportLateness) {
    const Json json = Json::parse(
        run_tarno({"bench", "--model", model, "--json", "--runs", "5", "--fps", "200"}).out);
    EXPECT_EQ(json["paced"]["fps"], 200.0);
    EXPECT_EQ(json["paced"]["lateness_ms"]["count"], 5);
    EXPECT_GE(json["paced"]["lateness_ms"]["min"].get<double>(), 0.0);
    EXPECT_GE(json["paced"]["dropped_frames"].get<int>(), 0);
}

TEST_F(Bench, DurationEndsTheSteadyState) {
    const Outcome outcome =
        run_tarno({"bench", "--model", model, "--json", "--duration", "0.01", "--warmup", "0"});
    expect_success(outcome);
    EXPECT_GE(Json::parse(outcome.out)["steady_ms"]["count"], 1);
}

TEST_F(Bench, TextHasAllParts) {
    const Outcome outcome = run_tarno({"bench", "--model", model, "--runs", "3", "--fps", "500"});
    expect_success(outcome);
    for (const char* part :
         {"set-up", "first run", "steady state", "p50", "p90", "p99", "max", "paced", "peak memory",
          "heap calls a run", "Convolution3x3s2x2", "Convolution_3x3s2_Float_SGEMM", "By kind",
          "DepthWiseConv2D", "fused activation"}) {
        EXPECT_NE(outcome.out.find(part), std::string::npos) << part << " in\n" << outcome.out;
    }
}

TEST_F(Bench, PoolsThatHoldMoreThanTheLimitAreRefused) {
    // Ever larger tensors, two at a time: no block that comes back is large enough for the next.
    modelkit::ModelHeader header;
    header.base_w = 8;
    header.base_h = 8;
    modelkit::NetBuilder net(header);
    int last = net.conv(net.input(1), 4, 1, 1, 0);
    for (int i = 0; i < 5; ++i)
        last = net.upsampling(last, 2.0, 0);
    ASSERT_TRUE(net.save(model).ok());
    const Json json =
        Json::parse(run_tarno({"bench", "--model", model, "--json", "--runs", "1"}).out);
    const int64_t peak = json["memory"]["pools_with_light_mode"]["peak_bytes"];
    const int64_t held = json["memory"]["pools_with_light_mode"]["held_bytes"];
    ASSERT_GT(held, peak + 1000);
    expect_refusal(
        run_tarno({"bench", "--model", model, "--memory-limit", std::to_string((peak + held) / 2)}),
        1, {model, "layer 6 (Upsampling)", "expected", "found", "--memory-limit"});
}

TEST_F(Bench, MoreThanTheMemoryLimitWithoutLightModeIsLeftOut) {
    // A long chain: few tensors at once, many all together.
    modelkit::ModelHeader header;
    header.base_w = 64;
    header.base_h = 64;
    modelkit::NetBuilder net(header);
    int last = net.input(1);
    for (int i = 0; i < 40; ++i)
        last = net.activation(last, ActivationType_Linear, 1.0, 0.0);
    ASSERT_TRUE(net.save(model).ok());
    const Outcome outcome =
        run_tarno({"bench", "--model", model, "--json", "--runs", "1", "--memory-limit", "200K"});
    expect_success(outcome);
    const Json memory = Json::parse(outcome.out)["memory"];
    EXPECT_TRUE(memory["pools_without_light_mode"].is_null());
    EXPECT_GT(memory["pools_with_light_mode"]["peak_bytes"], 0);
}

}  // namespace
