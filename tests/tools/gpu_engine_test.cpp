// The command on the GPU engine.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tools/array_files.h"
#include "tools/command.h"
#include "tools/pictures.h"

namespace {

using namespace command_test;
using modelkit::NetBuilder;
using modelkit::Window;
using Words = std::vector<std::string>;

const std::string shipped_model = TARNO_SOURCE_DIR "/assets/models/portrait_segmentation.zqnet";
const std::string shipped_frame = TARNO_SOURCE_DIR "/tests/data/portrait_input_256.png";
const Words preparation = {"--mean", "123.675,116.28,103.53", "--norm", "1/255"};

Words joined(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

class GpuEngine : public testing::Test {
protected:
    static constexpr int side = 16;

    static NetBuilder builder(int w = side, int h = side) {
        modelkit::ModelHeader header;
        header.base_w = static_cast<unsigned int>(w);
        header.base_h = static_cast<unsigned int>(h);
        return NetBuilder(header);
    }

    void save(const NetBuilder& net) {
        const modelkit::Status saved = net.save(model);
        ASSERT_TRUE(saved.ok()) << saved.message();
    }

    /// An .npy file of a c x side x side input.
    void save_input(int c, int h = side, int w = side) {
        std::vector<float> values(static_cast<size_t>(c * h * w));
        for (size_t i = 0; i < values.size(); ++i)
            values[i] = static_cast<float>((i * 37) % 101) / 64.0f - 0.5f;
        write_file(input, npy_file("<f4",
                                   "(" + std::to_string(c) + ", " + std::to_string(h) + ", " +
                                       std::to_string(w) + ")",
                                   raw(values)));
    }

    Outcome run(const Words& more = {}) {
        return run_tarno(joined(
            {"run", "--engine", "gpu", "--model", model, "--input", input, "--output", output},
            more));
    }
    Outcome compare(const Words& more = {}) {
        return run_tarno(joined({"compare", "--model", model, "--input", input}, more));
    }

    Folder folder;
    std::string model = folder / "net.zqnet";
    std::string input = folder / "in.npy";
    std::string output = folder / "out.npy";
};

// run ---------------------------------------------------------------------------------------------

TEST_F(GpuEngine, ThePointwiseConvolutionOfAPictureIsWhatTheFormulaSays) {
    constexpr int w = 8, h = 4;
    modelkit::Weights weights;
    weights.weights = {0.5f, -0.25f, 1.0f, 0.125f, 0.75f, -1.0f};
    weights.bias = {0.25f, -0.5f};
    NetBuilder net = builder(w, h);
    net.conv(net.input(3), 2, 1, 1, 0, 0, weights);
    save(net);
    const Pixels pixels = pattern(w, h, 3);
    const std::string picture = folder / "in.png";
    write_file(picture, png_file(pixels));
    expect_success(
        run_tarno({"run", "--engine", "gpu", "--model", model, "--input", picture, "--mean",
                   "10,20,30", "--norm", "1/64,1/32,1/128", "--output", output}));
    const Array result = read_array(output);
    ASSERT_EQ(result.c, 2);
    ASSERT_EQ(result.h, h);
    ASSERT_EQ(result.w, w);
    const double mean[] = {10.0, 20.0, 30.0};
    const double norm[] = {1.0 / 64, 1.0 / 32, 1.0 / 128};
    for (int p = 0; p < 2; ++p) {
        for (int i = 0; i < w * h; ++i) {
            double sum = static_cast<double>(weights.bias[static_cast<size_t>(p)]);
            double magnitude = std::fabs(sum);
            for (int c = 0; c < 3; ++c) {
                const double x = (pixels.data[static_cast<size_t>(3 * i + c)] - mean[c]) * norm[c];
                const double term =
                    x * static_cast<double>(weights.weights[static_cast<size_t>(3 * p + c)]);
                sum += term;
                magnitude += std::fabs(term);
            }
            // The inputs and the output are halves, the sum of four terms is of floats.
            const double bound = magnitude * (0x1p-10 + 8 * 0x1p-24) + std::fabs(sum) * 0x1p-10;
            ASSERT_NEAR(static_cast<double>(result.values[static_cast<size_t>(p * w * h + i)]), sum,
                        bound);
        }
    }
}

TEST_F(GpuEngine, AllLayersAreWrittenUnderTheirKinds) {
    NetBuilder net = builder();
    const int in = net.input(8);
    net.activation(net.conv(in, 8, 3, 1, 1), ActivationType_ReLU);
    save(net);
    save_input(8);
    const std::string layers = folder / "layers";
    expect_success(run({"--all-layers", layers, "--layer", "1"}));
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(layers))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Words{"000_0_Input.npy", "001_1_Conv2D.npy", "002_2_Activation.npy"}));
    EXPECT_EQ(read_array(layers + "/001_1_Conv2D.npy").values, read_array(output).values);
    const Array relu = read_array(layers + "/002_2_Activation.npy");
    const Array conv = read_array(output);
    for (size_t i = 0; i < conv.values.size(); ++i)
        ASSERT_EQ(relu.values[i], std::max(conv.values[i], 0.0f));
}

TEST_F(GpuEngine, RepeatedRunsGiveTheSame) {
    NetBuilder net = builder();
    const int in = net.input(8);
    net.conv(net.conv(in, 8, 3, 1, 1), 8, 3, 1, 1);
    save(net);
    save_input(8);
    expect_success(run());
    const Array once = read_array(output);
    expect_success(run({"--repeat", "3"}));
    EXPECT_EQ(read_array(output).values, once.values);
}

TEST_F(GpuEngine, TheShippedMaskIsThatOfTheCpuEngine) {
    const auto mask_of = [&](const std::string& engine, const Words& more) {
        expect_success(run_tarno(joined(joined({"run", "--engine", engine, "--model", shipped_model,
                                                "--input", shipped_frame, "--output", output},
                                               preparation),
                                        more)));
        return read_array(output).values;
    };
    const std::vector<float> cpu = mask_of("cpu", {});
    for (const Words& more :
         {Words{}, Words{"--tricks-mode", "0"}, Words{"--ubo-slice-limit", "4"}}) {
        const std::vector<float> gpu = mask_of("gpu", more);
        ASSERT_EQ(gpu.size(), cpu.size());
        double most = 0.0, sum = 0.0;
        for (size_t i = 0; i < cpu.size(); ++i) {
            const double difference =
                std::fabs(static_cast<double>(cpu[i]) - static_cast<double>(gpu[i]));
            most = std::max(most, difference);
            sum += difference;
        }
        EXPECT_LT(most, 0.02);
        EXPECT_LT(sum / static_cast<double>(cpu.size()), 0.002);
    }
}

// Refusals ----------------------------------------------------------------------------------------

struct Refusal {
    const char* name;
    std::function<void(NetBuilder&, int)> add;  ///< the layer behind an input of 8 channels
    Words parts;
};

class GpuRefusals : public GpuEngine, public testing::WithParamInterface<Refusal> {};

TEST_P(GpuRefusals, AreNamedBeforeTheGpuIsTouched) {
    NetBuilder net = builder();
    GetParam().add(net, net.input(8));
    save(net);
    save_input(8);
    // A driver without OpenGL 4.3 would be the next thing to complain about.
    setenv("GALLIUM_DRIVER", "softpipe", 1);
    const Outcome outcome = run();
    unsetenv("GALLIUM_DRIVER");
    expect_refusal(outcome, 1, joined({"net.zqnet", "layer 1 ("}, GetParam().parts));
    EXPECT_EQ(folder.names(), (Words{"in.npy", "net.zqnet"})) << "no half-written output";
}

INSTANTIATE_TEST_SUITE_P(
    Layers, GpuRefusals,
    testing::Values(
        Refusal{"Kernel",
                [](NetBuilder& n, int in) { n.conv(in, 8, 6, 1, 0); },
                {"Conv2D", "a kernel of 1x1, 3x1", "found 6x6"}},
        Refusal{"Dilation",
                [](NetBuilder& n, int in) { n.conv(in, 8, Window::square(5, 1, 4, 2)); },
                {"a dilation of 1x1", "found 2x2"}},
        Refusal{"DepthwiseKernel",
                [](NetBuilder& n, int in) { n.depthwise(in, 7, 1, 3); },
                {"DepthWiseConv2D", "3x3 or 5x5", "found 7x7"}},
        Refusal{"DepthwiseActivation",
                [](NetBuilder& n, int in) { n.depthwise(in, 3, 1, 1, ActivationType_Tanh); },
                {"activation", "kind 3 (Tanh)"}},
        Refusal{"Multiplier",
                [](NetBuilder& n, int in) { n.depthwise(in, Window::square(3, 1, 1), 0, 2); },
                {"a depth multiplier of 1", "found 2"}},
        Refusal{"Pooling",
                [](NetBuilder& n, int in) { n.pooling(in, 1, 5, 1); },
                {"Pooling", "2x2, 3x3, 1x4 or 2x4", "found 5x5"}},
        Refusal{"ConcatOfFour",
                [](NetBuilder& n, int in) {
                    n.concat({in, in, in, in});
                },
                {"Concatenate", "2, 3 or 5 bottoms", "found 4"}},
        Refusal{"EltwiseOfFour",
                [](NetBuilder& n, int in) {
                    n.eltwise({in, in, in, in});
                },
                {"ElementWiseOperator", "2 or 3 bottoms", "found 4"}},
        Refusal{"ProductOfThree",
                [](NetBuilder& n, int in) {
                    n.eltwise({in, in, in}, 2);
                },
                {"2 bottoms", "found 3"}},
        Refusal{"Kind",
                [](NetBuilder& n, int in) { n.batchnorm(in); },
                {"BatchNormalization", "which it has not"}},
        Refusal{"TransposedDepthwise",
                [](NetBuilder& n, int in) { n.depthwise_deconvolution(in, 3, 2, 1); },
                {"DepthWiseConv2DTranspose", "which it has not"}},
        Refusal{"Activation",
                [](NetBuilder& n, int in) { n.activation(in, ActivationType_Tanh); },
                {"Activation", "kind 3 (Tanh)"}},
        Refusal{"ShuffleBy4",
                [](NetBuilder& n, int in) { n.pixel_shuffle(in, 0.25); },
                {"PixelShuffle", "a factor of 2 or 1/2", "0.250"}},
        Refusal{"SizeOf0",
                [](NetBuilder& n, int in) {
                    n.record(n.conv(in, 8, 1, 1, 0))->out_shape->scale_x = 0x2400;
                },
                {"an output of at least 1x1x1", "found 8x16x0"}},
        Refusal{"SizeThatIsNoNumber",
                [](NetBuilder& n, int in) {
                    n.record(n.conv(in, 8, 1, 1, 0))->out_shape->scale_x = 0x7e00;
                },
                {"an output of at least 1x1x1"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(GpuEngine, ARegionMapOfMoreThanAWorkGroupIsRefused) {
    NetBuilder net = builder(40, 40);
    net.region(net.input(22), 2, 4, 6);
    save(net);
    save_input(22, 40, 40);
    expect_refusal(run(), 1, {"layer 1 (Region)", "at most 1024 pixels", "found 40x40"});
}

TEST_F(GpuEngine, ConcatOfChannelsThatAreNotInFoursIsRefused) {
    NetBuilder net = builder();
    const int in = net.input(8);
    net.concat({net.conv(in, 3, 1, 1, 0), in});
    save(net);
    save_input(8);
    expect_refusal(run(), 1, {"layer 2 (Concatenate)", "channels in fours", "found 3"});
}

TEST_F(GpuEngine, InputsThatAreNotTheLowestIdsAreRefused) {
    NetBuilder net = builder();
    const int in = net.input(8);
    const int top = net.activation(in, ActivationType_ReLU);
    net.record(in)->id = 5;
    net.record(top)->bottoms[0] = 5;
    save(net);
    save_input(8);
    expect_refusal(run(), 1, {"layer 5 (Input)", "lowest ids"});
}

TEST_F(GpuEngine, AnArrayOfAnotherSizeIsRefused) {
    NetBuilder net = builder();
    net.activation(net.input(8), ActivationType_ReLU);
    save(net);
    save_input(8, 4, 4);
    expect_refusal(run(), 1, {"layer 0 (Input)", "8x16x16", "found 8x4x4"});
}

TEST_F(GpuEngine, ASizeWhoseLastColumnAShaderLeavesOutIsRefused) {
    // 0.5308 of 32: 17 pixels rounded, 16 cut off, which two work groups of eight cover.
    NetBuilder net = builder(32, 32);
    const int top = net.conv(net.input(8), 8, Window{3, 1, 1, 0});
    net.record(top)->out_shape->scale_x = 0x383f;
    save(net);
    save_input(8, 32, 32);
    expect_refusal(run(), 1, {"layer 1 (Conv2D)", "comes to whole pixels", "17x32"});
}

TEST_F(GpuEngine, LayersThatWouldRunWithThePaddingOfAnotherAreRefused) {
    // Programs of pooling and of depthwise convolutions go by names without the padding.
    {
        NetBuilder net = builder();
        net.pooling(net.pooling(net.input(8), 1, 3, 1, 1), 1, 3, 1, 0);
        save(net);
        save_input(8);
        expect_refusal(run(), 1, {"layer 2 (Pooling)", "the padding of layer 1, 1x1", "found 0x0"});
    }
    {
        NetBuilder net = builder();
        net.depthwise(net.depthwise(net.input(8), 3, 1, 1), 3, 1, 0);
        save(net);
        expect_refusal(run(), 1, {"layer 2 (DepthWiseConv2D)", "the padding of layer 1"});
    }
    {
        NetBuilder net = builder();
        net.depthwise(net.depthwise(net.input(8), 3, 1, 1), 3, 1, 0, ActivationType_ReLU);
        save(net);
        expect_success(run());
    }
}

TEST_F(GpuEngine, AMemoryLimitHoldsForTextures) {
    NetBuilder net = builder();
    net.activation(net.input(8), ActivationType_ReLU);
    save(net);
    save_input(8);
    expect_refusal(run({"--memory-limit", "1K"}), 1, {"of memory", "1.0 KiB"});
}

TEST_F(GpuEngine, WithoutOpenGl43ThereIsOneLine) {
    NetBuilder net = builder();
    net.activation(net.input(8), ActivationType_ReLU);
    save(net);
    save_input(8);
    setenv("GALLIUM_DRIVER", "softpipe", 1);
    const Outcome outcome = run();
    unsetenv("GALLIUM_DRIVER");
    expect_refusal(outcome, 1, {"GPU engine", "OpenGL 4.3"});
    EXPECT_EQ(folder.names(), (Words{"in.npy", "net.zqnet"}));
}

TEST_F(GpuEngine, WordsThatDoNotFitAreUsageErrors) {
    const auto misuse = [](const Words& words, const Words& parts) {
        expect_refusal(run_tarno(words), 2, parts);
    };
    misuse({"run", "--engine", "tpu", "--model", "m", "--input", "i", "--output", "o.npy"},
           {"--engine", "cpu or gpu", "\"tpu\""});
    misuse({"run", "--engine", "gpu", "--table", "t", "--model", "m", "--input", "i", "--output",
            "o.npy"},
           {"--table", "--engine cpu"});
    misuse({"bench", "--engine", "gpu", "--fps", "30", "--model", "m"}, {"--fps", "--engine cpu"});
    misuse({"compare", "--model", "m", "--input", "i", "--tricks-mode", "-1"}, {"--tricks-mode"});
    misuse({"compare", "--model", "m", "--input", "i", "--ubo-slice-limit", "x"},
           {"--ubo-slice-limit", "a whole number"});
    misuse({"compare", "--model", "m"}, {"--input"});
}

// bench -------------------------------------------------------------------------------------------

TEST_F(GpuEngine, BenchTellsUploadComputeAndReadBackApart) {
    NetBuilder net = builder();
    int last = net.input(8);
    for (int i = 0; i < 3; ++i) last = net.conv(last, 8, 3, 1, 1);
    save(net);
    const Outcome outcome = run_tarno(
        {"bench", "--engine", "gpu", "--model", model, "--runs", "3", "--warmup", "1", "--json"});
    expect_success(outcome);
    const auto json = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(json["engine"], "gpu");
    for (const char* part : {"upload_ms", "compute_ms", "read_back_ms", "steady_ms"})
        EXPECT_EQ(json[part]["count"], 3) << part;
    EXPECT_EQ(json["programs"]["made"], 1);
    EXPECT_EQ(json["programs"]["shared"], 2);
    for (const char* part : {"packing", "source", "compiling", "net"})
        EXPECT_GE(json["setup_ms"][part].get<double>(), 0.0) << part;
    ASSERT_EQ(json["layers"].size(), 3u);
    EXPECT_EQ(json["layers"][0]["multiply_adds"], 8 * 8 * 9 * side * side);
    EXPECT_EQ(json["layers"][2]["id"], 3);
    // Four outputs of two slices, halves; one texture is the input's, the others take turns.
    EXPECT_EQ(json["textures"]["all_outputs_bytes"], 4 * side * side * 2 * 8);
    EXPECT_LE(json["textures"]["bytes"].get<int>(), 4 * side * side * 2 * 8);
    const Outcome text =
        run_tarno({"bench", "--engine", "gpu", "--model", model, "--runs", "2", "--warmup", "0"});
    expect_success(text);
    for (const char* word : {"upload", "compute", "read back", "packing", "compiling", "shared"})
        EXPECT_NE(text.out.find(word), std::string::npos) << word;
}

TEST_F(GpuEngine, BenchPrintsNoRateThatNoGpuHas) {
    NetBuilder net = builder();
    int last = net.input(8);
    for (int i = 0; i < 3; ++i) last = net.conv(last, 8, 3, 1, 1);
    net.activation(last, ActivationType_ReLU);
    save(net);
    const Words words = {"bench",  "--engine", "gpu",      "--model", model,
                         "--runs", "2",        "--warmup", "0"};
    const Outcome outcome = run_tarno(words);
    expect_success(outcome);
    EXPECT_EQ(outcome.out.find("inf"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find("nan"), std::string::npos) << outcome.out;
    // The last column of the table: each layer's rate, and that of all.
    std::istringstream lines(outcome.out.substr(outcome.out.find("G madds/s")));
    std::string line, rate;
    std::getline(lines, line);
    std::getline(lines, line);
    int rates = 0, none = 0;
    while (std::getline(lines, line) && !line.empty()) {
        if (line[0] == '-') continue;
        rate = line.substr(line.find_last_of(' ') + 1);
        if (rate == "-") {
            ++none;
        } else {
            ++rates;
            EXPECT_LT(std::stod(rate), 1e6) << line;
        }
    }
    EXPECT_EQ(rates + none, 5) << outcome.out;
    EXPECT_GE(none, 1) << "the activation has no multiply-adds";
    const auto json = nlohmann::json::parse(run_tarno(joined(words, {"--json"})).out);
    double seen = 0.0;
    for (const auto& layer : json["layers"]) seen += layer["ms"].get<double>();
    if (json["layer_times_by"] == "timer queries") {
        EXPECT_GE(seen, 0.05 * json["compute_ms"]["p50"].get<double>());
    } else {
        EXPECT_EQ(json["layer_times_by"], "clock");
        for (const auto& layer : json["layers"]) EXPECT_GT(layer["ms"].get<double>(), 0.0);
    }
}

// compare -----------------------------------------------------------------------------------------

TEST_F(GpuEngine, CompareOfTheShippedModelFindsAllLayersExplained) {
    for (const char* mode : {"4", "0"}) {
        const Outcome outcome = run_tarno(joined({"compare", "--model", shipped_model, "--input",
                                                  shipped_frame, "--json", "--tricks-mode", mode},
                                                 preparation));
        expect_success(outcome);
        const auto json = nlohmann::json::parse(outcome.out);
        EXPECT_EQ(json["layers"].size(), 82u);
        EXPECT_TRUE(json["first_beyond"].is_null());
        EXPECT_TRUE(json["left_out"].empty());
        EXPECT_TRUE(json["not_judged"].empty());
        for (const auto& layer : json["layers"]) {
            EXPECT_TRUE(layer["judged"].get<bool>());
            EXPECT_GT(layer["share_of_bound"].get<double>(), 0.0) << "the engines do differ";
            EXPECT_LE(layer["share_of_bound"].get<double>(), 1.0);
        }
    }
}

TEST_F(GpuEngine, CompareNamesTheFirstLayerBeyondTheBound) {
    // The CPU engine's kernel is made for even sizes: a true difference, at layer 2 alone.
    NetBuilder net = builder(16, 16);
    const int in = net.input(8, 13.0 / 16.0, 13.0 / 16.0);
    const int first = net.conv(in, 8, 3, 1, 1);
    const int odd = net.conv(first, 8, 1, 2, 0);
    net.conv(odd, 8, 1, 1, 0);
    save(net);
    save_input(8, 13, 13);
    const Outcome outcome = compare();
    expect_refusal(outcome, 1,
                   {"layer 2 (Conv2D)", "as half storage explains", "channel", "row", "column"});
    EXPECT_NE(outcome.out.find("of bound"), std::string::npos) << "the report comes first";
    const auto json = nlohmann::json::parse(compare({"--json"}).out);
    EXPECT_EQ(json["first_beyond"], 2);
    EXPECT_LE(json["layers"][1]["share_of_bound"].get<double>(), 1.0);
    EXPECT_LE(json["layers"][3]["share_of_bound"].get<double>(), 1.0)
        << "the layer behind did nothing wrong";
}

TEST_F(GpuEngine, CompareLeavesOutWhatOneEngineLacksAndNamesIt) {
    NetBuilder net = builder();
    const int in = net.input(8);
    const int conv = net.conv(in, 8, 3, 1, 1);
    const int normalised = net.batchnorm(conv);
    net.activation(normalised, ActivationType_ReLU);
    net.activation(conv, ActivationType_ReLU);
    save(net);
    save_input(8);
    const Outcome outcome = compare({"--json"});
    expect_success(outcome);
    const auto json = nlohmann::json::parse(outcome.out);
    ASSERT_EQ(json["left_out"].size(), 2u);
    EXPECT_EQ(json["left_out"][0]["id"], normalised);
    EXPECT_EQ(json["left_out"][0]["kind"], "BatchNormalization");
    EXPECT_NE(json["left_out"][0]["reason"].get<std::string>().find("GPU engine"),
              std::string::npos);
    EXPECT_EQ(json["left_out"][1]["id"], normalised + 1);
    EXPECT_EQ(json["layers"].size(), 3u) << "input, convolution, and the other activation";
    const Outcome text = compare();
    expect_success(text);
    EXPECT_NE(text.out.find("left out: layer 2 (BatchNormalization)"), std::string::npos);
}

TEST_F(GpuEngine, CompareOfAModelWithNothingInCommonIsRefused) {
    NetBuilder net = builder();
    net.batchnorm(net.input(8));
    save(net);
    save_input(8);
    expect_refusal(compare(), 1, {"layer 1 (BatchNormalization)", "which it has not"});
}

TEST_F(GpuEngine, CompareMeasuresButDoesNotJudgeWhatTheEnginesDoNotMeanAlike) {
    NetBuilder net = builder();
    const int in = net.input(8);
    const int average = net.pooling(in, 0, 3, 1, 1);
    net.conv(average, 8, 3, 1, 1);
    save(net);
    save_input(8);
    const Outcome outcome = compare({"--json"});
    expect_success(outcome);
    const auto json = nlohmann::json::parse(outcome.out);
    ASSERT_EQ(json["not_judged"].size(), 1u);
    EXPECT_EQ(json["not_judged"][0]["id"], average);
    EXPECT_FALSE(json["layers"][1]["judged"].get<bool>());
    EXPECT_GT(json["layers"][1]["max_absolute"].get<double>(), 0.1) << "they differ at the border";
    EXPECT_TRUE(json["layers"][2]["judged"].get<bool>()) << "by what reached it";
}

TEST_F(GpuEngine, CompareDoesNotJudgeLayersBeyondTheRangeOfHalvesAndSaysSo) {
    modelkit::Weights weights;
    weights.weights.assign(8 * 8, 60000.0f);
    weights.bias.assign(8, 0.0f);
    NetBuilder net = builder();
    const int in = net.input(8);
    const int large = net.conv(in, 8, 1, 1, 0, 0, weights);
    net.pooling(large, 1, 2, 2);
    net.conv(in, 8, 3, 1, 1);
    save(net);
    save_input(8);
    const Outcome outcome = compare({"--json"});
    expect_success(outcome);
    const auto json = nlohmann::json::parse(outcome.out);
    EXPECT_TRUE(json["first_beyond"].is_null());
    ASSERT_EQ(json["not_judged"].size(), 2u);
    EXPECT_EQ(json["not_judged"][0]["id"], large);
    const std::string reason = json["not_judged"][0]["reason"].get<std::string>();
    for (const char* part : {"of 2048 elements may leave the range of halves", "channel",
                             "on the CPU engine", "on the GPU engine"}) {
        EXPECT_NE(reason.find(part), std::string::npos) << reason;
    }
    EXPECT_EQ(json["not_judged"][1]["kind"], "Pooling");
    const bool judged[] = {true, false, false, true};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(json["layers"][i]["judged"].get<bool>(), judged[i]);
    const Outcome text = compare();
    expect_success(text);
    EXPECT_NE(text.out.find("not judged: layer 1 (Conv2D): "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("\n2 layers differ by no more"), std::string::npos) << text.out;
}

TEST_F(GpuEngine, CompareDoesNotJudgeWhatComesFromNoNumber) {
    NetBuilder net = builder();
    const int in = net.input(1);
    net.activation(in, ActivationType_ReLU);
    net.pooling(in, 1, 2, 2);
    save(net);
    std::vector<float> values(side * side, 0.5f);
    values[side + 1] = std::nanf("");
    write_file(input, npy_file("<f4", "(1, 16, 16)", raw(values)));
    const Outcome outcome = compare({"--json"});
    expect_success(outcome);
    const auto json = nlohmann::json::parse(outcome.out);
    ASSERT_EQ(json["not_judged"].size(), 3u) << outcome.out;
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(json["not_judged"][i]["id"], i);
        EXPECT_FALSE(json["layers"][i]["judged"].get<bool>());
        EXPECT_EQ(json["not_judged"][i]["reason"].get<std::string>().find("1 of "), 0u);
    }
    EXPECT_NE(compare().out.find("row 1, column 1: nan on the CPU engine, nan on the GPU engine"),
              std::string::npos);
}

TEST_F(GpuEngine, CompareTakesADenseLayerElementByElement) {
    NetBuilder net = builder();
    net.fully_connected(net.fully_connected(net.tensor_input({1, 16}), 16, 12), 12, 8);
    save(net);
    std::vector<float> values(16);
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i) / 8.0f - 1.0f;
    write_file(input, npy_file("<f4", "(16,)", raw(values)));
    const Outcome outcome = compare({"--json"});
    expect_success(outcome);
    const auto json = nlohmann::json::parse(outcome.out);
    ASSERT_EQ(json["layers"].size(), 3u);
    for (const auto& layer : json["layers"]) EXPECT_TRUE(layer["judged"].get<bool>());
}

}  // namespace
