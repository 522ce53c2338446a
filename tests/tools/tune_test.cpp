// Tuning, and tables that go back in. No test looks at how long something took.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>
#include <tarno/cpu.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tools/tuning.h"

namespace {

using namespace command_test;
using modelkit::NetBuilder;

std::vector<std::string> lines_of(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(std::string::npos, at) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

/// A line of the report's list of trials.
struct Tried {
    std::string layer;  ///< id and type
    std::string name;
    std::string layout;
    double milliseconds;
    std::string times;
    std::string marks;

    bool is(const char* mark) const { return marks.find(mark) != std::string::npos; }
};

std::vector<Tried> trials_of(const std::string& report) {
    const size_t start = report.find("Operators that were tried");
    EXPECT_NE(std::string::npos, start) << report;
    if (start == std::string::npos) return {};
    const std::string tried = report.substr(start, report.find("Chosen on the cheapest") - start);
    const std::regex row(R"( *(\d+) +(\S+) +(\w+) +(\w+(?: to \w+)?) +(\d+\.\d+) +(\S+) *(.*))");
    std::vector<Tried> trials;
    for (const std::string& line : lines_of(tried)) {
        std::smatch match;
        if (!std::regex_match(line, match, row)) continue;
        trials.push_back({match[1].str() + " " + match[2].str(), match[3], match[4],
                          std::stod(match[5].str()), match[6], match[7]});
    }
    return trials;
}

/// The classes of a printed table, row by row.
std::vector<std::string> names_of(const std::string& table) {
    const std::regex row(R"(\{(?: *(nullptr)|TarnoCPU:: *(\w+)_operator_creator),.*)");
    std::vector<std::string> names;
    for (const std::string& line : lines_of(table)) {
        std::smatch match;
        if (std::regex_match(line, match, row)) {
            names.push_back(match[1].matched ? match[1].str() : match[2].str());
        }
    }
    return names;
}

/// Whether `text` can be the quotient, in two decimals, of two times printed in three.
void expect_quotient(double before, double after, const std::string& text) {
    constexpr double half = 0.0005, half_percent = 0.005, slack = 1e-9;
    if (text == "-") {
        EXPECT_TRUE(before <= half || after <= half) << before << " / " << after;
        return;
    }
    const double times = std::stod(text);
    EXPECT_GE(times, (before - half) / (after + half) - half_percent - slack);
    if (after > half) {
        EXPECT_LE(times, (before + half) / (after - half) + half_percent + slack);
    }
}

class Tune : public Tuning {
protected:
    void SetUp() override {
        modelkit::ModelHeader header;
        header.base_w = 32;
        header.base_h = 32;
        NetBuilder net(header, 3);
        const int image = net.input(4);
        const int first = net.conv(image, 16, 3, 1, 1, ActivationType_ReLU);
        const int point = net.conv(first, 16, 1, 1, 0, ActivationType_ReLU);
        const int depth = net.depthwise(point, 3, 1, 1, ActivationType_ReLU);
        const int sum = net.eltwise({point, depth}, 0, ActivationType_ReLU);
        const int half = net.pooling(sum, 1, 2, 2);
        const int twice = net.upsampling(half, 2.0);
        const int joined = net.concat({twice, first});
        net.conv(joined, 4, 1, 1, 0, ActivationType_Sigmoid);
        save(net, 4, 32, 32);
        layers = 14;
    }

    size_t layers = 0;
};

TEST_F(Tune, ThePrintedTableGivesTheDefaultRulesOutputWithinRounding) {
    tuned();
    expect_the_same_within_rounding();
}

TEST_F(Tune, TheTableHasAMachineLineAndTheDocumentedColumns) {
    const std::vector<std::string> lines = lines_of(tuned());
    ASSERT_EQ(4 + layers, lines.size());
    EXPECT_EQ(0u, lines[0].find("// Measured on "));
    EXPECT_EQ("static const std::vector<TarnoCPU::LayerInferenceConfig> model_inference_config = ",
              lines[1]);
    EXPECT_EQ("{", lines[2]);
    EXPECT_EQ("};", lines.back());
    const std::regex row(
        R"(\{( *nullptr|TarnoCPU:: *\w+_operator_creator),  0,  0\},  // Index +\d+ Model ID +\d+ )"
        R"(\S+ +In CHW\( *\d+, *\d+, *\d+\), Out CHW\( *\d+, *\d+, *\d+\))");
    for (size_t i = 0; i < layers; ++i) {
        const std::string& line = lines[3 + i];
        EXPECT_TRUE(std::regex_match(line, row)) << line;
        EXPECT_NE(std::string::npos, line.find("// Index " + std::string(i < 10 ? "  " : " ") +
                                               std::to_string(i) + " "));
    }
}

TEST_F(Tune, ThePrintedTableCompiles) {
    tuned();
    const std::string unit = folder / "unit.cpp";
    write_file(unit, "#include <tarno/cpu.h>\n#include <vector>\n#include \"" + table +
                         "\"\nunsigned long rows() { return model_inference_config.size(); }\n");
    const std::string command = std::string(TARNO_CXX) + " -std=c++17 -Wall -Wextra -Wpedantic " +
                                "-Werror -fsyntax-only -I" + TARNO_SOURCE_DIR + "/include -I" +
                                TARNO_SOURCE_DIR + " " + unit;
    EXPECT_EQ(0, std::system(command.c_str()));
}

TEST_F(Tune, LayersOfAllSortsRoundTrip) {
    modelkit::ModelHeader header;
    header.base_w = 30;
    header.base_h = 30;
    NetBuilder net(header, 5);
    const int image = net.input(4);
    const int odd = net.conv(image, 8, 3, 1, 0, ActivationType_ReLU6);
    const int halved = net.conv(odd, 8, 3, 2, 1, ActivationType_LeakyReLU);
    const int wide = net.depthwise(halved, modelkit::Window::square(3, 1, 1), 0, 2);
    const int line =
        net.conv(wide, 8, modelkit::Window{3, 1, 1, 0, 1, 1, 1, 1}, ActivationType_ReLU);
    const int up = net.upsampling(line, 2.0, 0);
    net.conv(up, 4, 1, 1, 0, ActivationType_Tanh);
    save(net, 4, 30, 30);
    tuned();
    expect_the_same_within_rounding();
}

TEST_F(Tune, DenseLayersRoundTrip) {
    NetBuilder net;
    const int features = net.tensor_input({4, 1, 8});
    const int flat = net.reshape(features, {1, 32});
    const int dense = net.fully_connected(flat, 32, 10);
    net.lstm(dense, 10, 4);
    save(net, 4, 1, 8);
    tuned();
    expect_the_same_within_rounding();
}

TEST_F(Tune, TheReportListsWhatWasTriedForEveryLayerWithItsTime) {
    tuned();
    std::vector<std::string> defaults, chosen;
    std::map<std::string, int> trials;
    for (const Tried& tried : trials_of(report)) {
        ++trials[tried.layer];
        if (tried.is("default")) {
            defaults.push_back(tried.name);
            EXPECT_EQ("1.00", tried.times) << tried.layer;
        }
        if (tried.is("chosen")) chosen.push_back(tried.layer);
    }
    // One of each for every row of the table but the concat's.
    EXPECT_EQ((std::vector<std::string>{"Input_Fallback", "Convolution_3x3s1_Float_SGEMM",
                                        "ReLU_Float_SSE", "Convolution_1x1s1_Float_SGEMM",
                                        "ReLU_Float_SSE", "ConvolutionDepthwise_Float_Fallback",
                                        "ReLU_Float_SSE", "Elementwise_Float_SSE", "ReLU_Float_SSE",
                                        "Pooling_Float_Fallback", "Upsampling_Float_Fallback",
                                        "Convolution_1x1s1_Float_SGEMM", "Sigmoid_Float_Fallback"}),
              defaults);
    EXPECT_EQ(layers - 1, chosen.size());
    // All that fit, whichever won.
    EXPECT_GE(trials["1 Convolution3x3s1x1"], 12) << report;
    EXPECT_GE(trials["2 Convolution1x1s1x1"], 13) << report;
    EXPECT_GE(trials["3 ConvolutionDepthWise3x3s1x1"], 11) << report;
    EXPECT_EQ(2, trials["8 Sigmoid"]) << "one operator in two layouts\n" << report;
}

TEST_F(Tune, TheTableHoldsWhatTheReportCallsChosen) {
    const std::vector<std::string> names = names_of(tuned());
    ASSERT_EQ(layers, names.size());
    const bool by_rule = report.find("the table is that of the rule") != std::string::npos;
    std::vector<std::string> expected;
    for (const Tried& tried : trials_of(report)) {
        if (tried.is(by_rule ? "default" : "chosen")) expected.push_back(tried.name);
    }
    ASSERT_EQ(layers - 1, expected.size());
    expected.insert(expected.begin() + 11, "nullptr");  // the concat
    EXPECT_EQ(expected, names) << report;
}

TEST_F(Tune, ALayerThatIsAloneGetsTheOperatorThatWasFastestThere) {
    // A depthwise convolution has no activation that could change the layout behind it: the choice
    // is among those that take planes and give planes.
    modelkit::ModelHeader header;
    header.base_w = header.base_h = 64;
    NetBuilder net(header, 7);
    net.depthwise(net.input(16), modelkit::Window::square(3, 1, 1));
    save(net, 16, 64, 64);
    const std::vector<std::string> names = names_of(tuned());
    ASSERT_EQ(2u, names.size());
    double fastest = std::numeric_limits<double>::infinity();
    const Tried* chosen = nullptr;
    std::string by_rule;
    const std::vector<Tried> trials = trials_of(report);
    for (const Tried& tried : trials) {
        if (tried.layer.find("Depth") == std::string::npos || tried.layout != "CHW") continue;
        fastest = std::min(fastest, tried.milliseconds);
        if (tried.is("default")) by_rule = tried.name;
        if (tried.is("chosen")) chosen = &tried;
    }
    ASSERT_NE(nullptr, chosen) << report;
    EXPECT_EQ(fastest, chosen->milliseconds) << report;
    const bool gain = report.find("the table is that of the rule") == std::string::npos;
    EXPECT_EQ(gain ? chosen->name : by_rule, names[1]) << report;
}

TEST_F(Tune, AnotherSizeIsTunedAtThatSize) {
    const Outcome outcome =
        run_tarno({"tune", "--model", model, "--size", "48x24", "--output", table});
    expect_success(outcome);
    const std::vector<std::string> lines = lines_of(read_file(table));
    ASSERT_EQ(4 + layers, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("4x24x48")) << lines[0];
    const std::regex row(R"(.*In CHW\( *4, *24, *48\), Out CHW\( *16, *24, *48\))");
    EXPECT_TRUE(std::regex_match(lines[4], row)) << lines[4];
    // 24 rows are a whole number of every tile's: the trials are those of a net of that size.
    EXPECT_NE(std::string::npos, outcome.out.find("Convolution_3x3s1_Float_SSE_M3 "));
}

TEST_F(Tune, ANetWithoutAChoiceGetsTheRulesTableAndSaysSo) {
    NetBuilder net;
    net.activation(net.input(4, 0.125, 0.125), ActivationType_Sigmoid);
    save(net, 4, 32, 32);
    tuned();
    EXPECT_NE(std::string::npos, report.find("no operator beats those of the default rule"))
        << report;
    expect_the_same_within_rounding();
}

TEST_F(Tune, WithoutAnOutputFileTheTableGoesToStandardOutput) {
    const Outcome outcome = run_tarno({"tune", "--model", model});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(0u, outcome.out.find("// Measured on "));
    EXPECT_NE(std::string::npos, outcome.err.find("whole net"));
}

/// The net's layers by the default rule and by a table with a chain of four channels side by side.
class TuneComparison : public Tune {
protected:
    const std::vector<std::string> by_rule = {"Input_Fallback",
                                              "Convolution_3x3s1_Float_SGEMM",
                                              "ReLU_Float_SSE",
                                              "Convolution_1x1s1_Float_SGEMM",
                                              "ReLU_Float_SSE",
                                              "ConvolutionDepthwise_Float_Fallback",
                                              "ReLU_Float_SSE",
                                              "Elementwise_Float_SSE",
                                              "ReLU_Float_SSE",
                                              "Pooling_Float_Fallback",
                                              "Upsampling_Float_Fallback",
                                              "-",
                                              "Convolution_1x1s1_Float_SGEMM",
                                              "Sigmoid_Float_Fallback"};
    std::vector<std::string> by_table = by_rule;

    std::string compared(const std::vector<std::string>& extra) {
        by_table[1] = "Convolution_3x3s1_Float_SSE_M1";
        by_table[4] = "ReLU_Float_SSE_CHW_To_C4HW4";
        by_table[5] = "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M1";
        by_table[8] = "ReLU_Float_SSE_C4HW4_To_CHW";
        std::vector<std::string> rows = by_table;
        rows[11] = "nullptr";
        write_file(table, table_of(rows));
        std::vector<std::string> words = {
            "bench",  "--model", model,      "--table", table, "--compare-tables",
            "--runs", "5",       "--warmup", "1"};
        words.insert(words.end(), extra.begin(), extra.end());
        const Outcome outcome = run_tarno(words);
        expect_success(outcome);
        return outcome.out;
    }
};

TEST_F(TuneComparison, ShowsBothOperatorsOfEveryLayerAndTheQuotientsOfTheTimes) {
    const std::string text = compared({});
    EXPECT_EQ(0u, text.find("Medians of 5 runs ")) << text;
    const std::regex row(
        R"( *(\d+) +(\S+) +(\w+|-) +(\d+\.\d{3}) +(\w+|the same) +(\d+\.\d{3}) +(\S+) *)");
    const std::regex total(
        R"( *(sum of the layers|whole run) +(\d+\.\d{3}) +(\d+\.\d{3}) +(\S+) *)");
    size_t place = 0;
    double sums[2] = {};
    std::vector<std::string> totals;
    for (const std::string& line : lines_of(text)) {
        SCOPED_TRACE(line);
        std::smatch match;
        if (std::regex_match(line, match, row)) {
            ASSERT_LT(place, layers);
            EXPECT_EQ(by_rule[place], match[3]);
            EXPECT_EQ(by_table[place] == by_rule[place] ? "the same" : by_table[place], match[5]);
            const double before = std::stod(match[4].str()), after = std::stod(match[6].str());
            expect_quotient(before, after, match[7]);
            sums[0] += before;
            sums[1] += after;
            ++place;
        } else if (std::regex_match(line, match, total)) {
            const double before = std::stod(match[2].str()), after = std::stod(match[3].str());
            expect_quotient(before, after, match[4]);
            EXPECT_GT(before, 0.0);
            EXPECT_GT(after, 0.0);
            totals.push_back(match[1]);
            if (match[1] != "sum of the layers") continue;
            // Each of the numbers, and the sum, is rounded to three decimals.
            const double slack = 0.0005 * static_cast<double>(layers + 1) + 1e-9;
            EXPECT_NEAR(sums[0], before, slack);
            EXPECT_NEAR(sums[1], after, slack);
        }
    }
    EXPECT_EQ(layers, place) << text;
    EXPECT_EQ((std::vector<std::string>{"sum of the layers", "whole run"}), totals);
}

TEST_F(TuneComparison, SaysTheSameInJson) {
    const nlohmann::json json = nlohmann::json::parse(compared({"--json"}));
    EXPECT_EQ(5, json["runs"]);
    const auto quotient = [](const nlohmann::json& entry) {
        const double after = entry["table_ms"].get<double>();
        return after > 0.0 ? entry[entry.contains("default_ms") ? "default_ms" : "default_rule_ms"]
                                     .get<double>() /
                                 after
                           : 0.0;
    };
    EXPECT_GT(json["default_rule_ms"].get<double>(), 0.0);
    EXPECT_GT(json["table_ms"].get<double>(), 0.0);
    EXPECT_DOUBLE_EQ(quotient(json), json["ratio"].get<double>());
    ASSERT_EQ(layers, json["layers"].size());
    for (size_t i = 0; i < layers; ++i) {
        const nlohmann::json& layer = json["layers"][i];
        SCOPED_TRACE(layer.dump());
        EXPECT_EQ(by_rule[i], layer["default_operator"]);
        EXPECT_EQ(by_table[i], layer["table_operator"]);
        EXPECT_DOUBLE_EQ(quotient(layer), layer["ratio"].get<double>());
    }
    EXPECT_EQ(1, json["layers"][1]["id"]);
    EXPECT_EQ("Convolution3x3s1x1", json["layers"][1]["type"]);
}

TEST_F(Tune, ATableBenchesLikeAnyNet) {
    tuned();
    expect_success(
        run_tarno({"bench", "--model", model, "--table", table, "--runs", "2", "--warmup", "1"}));
}

TEST_F(Tune, AnUnknownOperatorIsNamedWithItsLine) {
    const std::string text = tuned();
    expect_table_refused(
        replaced(text, "Input_Fallback_operator", "Inpet_Fallback_operator"),
        {"edited.h: line 4", "Inpet_Fallback", "expected an operator of the library"});
}

TEST_F(Tune, ATableOfAnotherLengthIsRefusedWithBothNumbers) {
    const std::string text = tuned();
    std::vector<std::string> lines = lines_of(text);
    lines.erase(lines.begin() + 5);
    std::string shorter;
    for (const std::string& line : lines) shorter += line + "\n";
    expect_table_refused(shorter, {"expected 14 rows", "found 13", "net.zqnet"});
}

TEST_F(Tune, AnOperatorThatDoesNotFitIsRefusedWithRowLayerAndReason) {
    std::vector<std::string> lines = lines_of(tuned());
    const auto with_row = [&](size_t row, const std::string& name) {
        std::vector<std::string> edited = lines;
        edited[3 + row] = name == "nullptr" ? "{nullptr, 0, 0},"
                                            : "{TarnoCPU::" + name + "_operator_creator, 0, 0},";
        std::string text;
        for (const std::string& line : edited) text += line + "\n";
        return text;
    };
    // Row 1 is the 3x3 convolution, row 2 its ReLU, row 11 the concat.
    expect_table_refused(with_row(1, "Convolution_1x1s1_Float_SGEMM"),
                         {"line 5", "row 1", "layer 1 (Conv2D)", "kernels of 1x1", "3x3"});
    expect_table_refused(with_row(1, "Convolution_3x3s2_Float_SGEMM"), {"row 1", "stride of 2"});
    expect_table_refused(with_row(1, "ReLU_Float_SSE"), {"row 1", "kind Activation"});
    expect_table_refused(with_row(1, "nullptr"), {"row 1", "expected an operator, found nullptr"});
    expect_table_refused(with_row(2, "Sigmoid_Float_Fallback"),
                         {"row 2", "its activation", "another activation"});
    expect_table_refused(with_row(11, "Eltwise_Float_Fallback"), {"row 11", "expected nullptr"});
}

TEST_F(Tune, ALayoutThatTheNextLayerDoesNotTakeIsRefused) {
    const std::string text =
        table_of({"Input_Fallback", "Convolution_3x3s1_Float_SGEMM", "ReLU_Float_SSE_CHW_To_C4HW4",
                  "Convolution_1x1s1_Float_SGEMM", "ReLU_Float_SSE",
                  "ConvolutionDepthwise_Float_Fallback", "ReLU_Float_SSE", "Elementwise_Float_SSE",
                  "ReLU_Float_SSE", "Pooling_Float_Fallback", "Upsampling_Float_Fallback",
                  "nullptr", "Convolution_1x1s1_Float_SGEMM", "Sigmoid_Float_Fallback"});
    expect_table_refused(text, {"row 3", "layer 2 (Conv2D)", "takes CHW, the layer gets C4HW4"});
}

TEST_F(Tune, AHandWrittenChainOfFourChannelsSideBySideGivesTheSameOutput) {
    // Into fours behind the 1x1 convolution, through depthwise and sum, and out again.
    write_file(table, table_of({"Input_Fallback", "Convolution_3x3s1_Float_SGEMM", "ReLU_Float_SSE",
                                "Convolution_1x1s1_Float_SGEMM", "ReLU_Float_SSE_CHW_To_C4HW4",
                                "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M1", "ReLU_Float_SSE",
                                "Elementwise_Float_SSE", "ReLU_Float_SSE_C4HW4_To_CHW",
                                "Pooling_Float_Fallback", "Upsampling_Float_Fallback", "nullptr",
                                "Convolution_1x1s1_Float_SGEMM", "Sigmoid_Float_Fallback"}));
    expect_the_same_within_rounding();
}

TEST_F(Tune, AConcatJoinsBlocksOfFour) {
    modelkit::ModelHeader header;
    header.base_w = 32;
    header.base_h = 32;
    NetBuilder net(header, 4);
    const int image = net.input(4);
    const int first = net.conv(image, 8, 3, 1, 1, ActivationType_ReLU);
    const int second = net.conv(first, 8, 1, 1, 0, ActivationType_ReLU);
    net.conv(net.concat({first, second}), 8, 1, 1, 0, ActivationType_ReLU);
    save(net, 4, 32, 32);
    const std::vector<std::string> names = {"Input_Fallback",
                                            "Convolution_3x3s1_Float_SGEMM",
                                            "ReLU_Float_SSE_CHW_To_C4HW4",
                                            "Convolution_1x1s1_Float_SSE_C4HW4_M2",
                                            "ReLU_Float_SSE",
                                            "nullptr",
                                            "Convolution_1x1s1_Float_SSE_C4HW4_M3",
                                            "ReLU_Float_SSE_C4HW4_To_CHW"};
    write_file(table, table_of(names));
    expect_the_same_within_rounding();

    std::vector<std::string> unfinished = names;
    unfinished.back() = "ReLU_Float_SSE";
    expect_table_refused(table_of(unfinished), {"row 7", "expected a result in CHW"});
}

TEST_F(Tune, ShapesPaddingsAndBiasesThatAnOperatorDoesNotTakeAreNamed) {
    struct Case {
        modelkit::Window window;
        int channels;
        bool bias;
        const char* name;
        const char* reason;
    };
    using modelkit::Window;
    const Case cases[] = {
        {Window::square(3, 1, 0), 8, true, "Convolution_3x3s1_Float_SSE_M1",
         "rows in the result divisible by 4, the layer has 30"},
        {Window::square(3, 1, 1), 6, true, "Convolution_3x3s1_Float_SSE_M7", "divisible by 4"},
        {Window::square(3, 1, 1), 8, false, "Convolution_3x3s1_Float_SSE_M1", "reads a bias"},
        {Window::square(3, 2, 1), 8, true, "Convolution_3x3s2_Float_SSE_M1",
         "padding of 1 on even sizes and none on odd ones, the layer has one of 1x1"},
        {Window::square(3, 2, 1), 8, true, "Convolution_3x3s2_Float_SSE_M3", "is for even sizes"},
        {Window::square(3, 2, 0), 8, true, "Convolution_3x3s2_Float_SSE_M4",
         "padding of 1 on even sizes, the layer has one of 0x0"},
        {Window::square(3, 1, 0), 8, true, "Convolution_Float_Fallback",
         "makes 32x32 pixels of 32x32, the layer has 30x30"},
        {Window::square(4, 1, 0), 8, true, "Convolution_4x4s1_Float_SGEMM",
         "makes 29x29 pixels of 32x32, the layer has 32x32"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        modelkit::ModelHeader header;
        header.base_w = 32;
        header.base_h = c.window.stride_h == 2 ? 31 : 32;
        NetBuilder net(header, 4);
        net.conv(net.input(4), c.channels, c.window);
        if (!c.bias) static_cast<ZQLayerInfo_Conv2D*>(net.record(1))->has_bias = 0;
        save(net, 4, static_cast<int>(header.base_h), 32);
        expect_table_refused(table_of({"Input_Fallback", c.name}),
                             {"row 1", "layer 1 (Conv2D)", c.reason});
    }
}

/// The 3x3 convolution of a net that has no other layer, in planes.
class TuneWithoutPadding : public Tuning {
protected:
    void save_one(int stride, int size) {
        modelkit::ModelHeader header;
        header.base_w = header.base_h = static_cast<unsigned int>(size);
        NetBuilder net(header, 6);
        net.conv(net.input(4), 8, modelkit::Window::square(3, stride, 0));
        save(net, 4, size, size);
    }

    void expect_tried_and_taken(const std::vector<std::string>& names) {
        tuned();
        EXPECT_EQ(std::string::npos, report.find("differs by")) << report;
        for (const std::string& name : names) {
            SCOPED_TRACE(name);
            EXPECT_TRUE(std::regex_search(report, std::regex("\\b" + name + " "))) << report;
            if (name.find("C4HW4") != std::string::npos) continue;  // the input is planes
            write_file(table, table_of({"Input_Fallback", name}));
            expect_the_same_within_rounding();
        }
    }
};

TEST_F(TuneWithoutPadding, TheTilesOfStride1DivideTheResultAndNotTheBottom) {
    save_one(1, 34);  // 32 x 32 come out, which every tile divides
    std::vector<std::string> names = {"Convolution_3x3s1_Float_SSE_C4HW4_M1"};
    for (int m = 1; m <= 10; ++m) {
        names.push_back("Convolution_3x3s1_Float_SSE_M" + std::to_string(m));
    }
    expect_tried_and_taken(names);
}

TEST_F(TuneWithoutPadding, MembersOfStride2ThatTakeOddSizesNeedNoPaddingThere) {
    save_one(2, 33);  // the last taps are those of row and column 32
    std::vector<std::string> names = {"Convolution_3x3s2_Float_SSE_M1",
                                      "Convolution_3x3s2_Float_SSE_M2",
                                      "Convolution_3x3s2_Float_SSE_C4HW4_M1"};
    if (__builtin_cpu_supports("fma")) {
        names.push_back("Convolution_3x3s2_Float_SSE_M4");
        names.push_back("Convolution_3x3s2_Float_SSE_M5");
    }
    expect_tried_and_taken(names);
}

TEST_F(Tune, ADeconvolutionOfAnotherSizeIsRefused) {
    NetBuilder net;
    const int image = net.input(4, 0.125, 0.125);
    net.deconvolution(image, 4, 3, 2, 0);
    save(net, 4, 32, 32);
    expect_table_refused(
        table_of({"Input_Fallback", "Deconvolution_Float_Blas"}),
        {"row 1", "layer 1 (Conv2DTranspose)", "makes 64x64 pixels of 32x32, the layer has 66x66"});
}

TEST_F(Tune, NonsenseIsRefusedWithItsLine) {
    const std::string text = tuned();
    expect_table_refused(replaced(text, ",  0,  0},", ",  0},"), {"line 4", "expected a row"});
    expect_table_refused(replaced(text, "};\n", ""), {"expected a line \"};\""});
    expect_table_refused("", {"expected a line \"{\""});
    expect_table_refused(text + "int x;\n", {"nothing behind the table"});
    expect_table_refused("{\n" + std::string(5000, 'x') + "\n};\n", {"line 2", "5000"});
}

TEST_F(Tune, AMissingTableIsOneLine) {
    const Outcome outcome = run_tarno({"run", "--model", model, "--table", folder / "no.h",
                                       "--input", input, "--output", folder / "o.npy"});
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(1u, outcome.error_lines());
    EXPECT_NE(std::string::npos, outcome.err.find("no.h"));
}

TEST_F(Tune, UsageErrorsHaveStatusTwo) {
    EXPECT_EQ(2, run_tarno({"tune"}).status);
    EXPECT_EQ(2, run_tarno({"bench", "--model", model, "--compare-tables"}).status);
    EXPECT_EQ(2, run_tarno({"tune", "--model", model, "--size", "0x0"}).status);
}

TEST_F(Tune, ATableInThePlaceOfTheModelIsRefused) {
    const std::string bytes = read_file(model);
    expect_refusal(run_tarno({"tune", "--model", model, "--output", folder / "./net.zqnet"}), 1,
                   {"net.zqnet", "expected a place for the output apart from the inputs"});
    EXPECT_TRUE(read_file(model) == bytes);
}

TEST_F(Tune, ABrokenModelLeavesNoTable) {
    const std::string cut = folder / "cut.zqnet";
    write_file(cut, read_file(model).substr(0, 1500));
    const Outcome outcome = run_tarno({"tune", "--model", cut, "--output", table});
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(1u, outcome.error_lines());
    EXPECT_FALSE(std::filesystem::exists(table));
}

}  // namespace
