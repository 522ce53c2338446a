// --memory-limit holds for all that the commands keep beside a run of the default operators: the
// tuner's notes, bounds and recorded tensors, the second net of a comparison, the scratch of a
// table's operators.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "tools/tuning.h"

namespace {

using namespace command_test;
using modelkit::NetBuilder;

constexpr double mebibyte = 1024.0 * 1024.0;

/// The number of bytes behind "need of" in a refusal; what is printed is rounded to a tenth.
double need_in(const std::string& text) {
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(R"(need of ([\d.]+) (KiB|MiB|GiB))"))) {
        ADD_FAILURE() << text;
        return 0.0;
    }
    const double unit = match[2] == "KiB" ? 1024.0 : match[2] == "MiB" ? mebibyte : 1024 * mebibyte;
    return std::atof(match[1].str().c_str()) * unit;
}

class MemoryLimit : public Tuning {
protected:
    Outcome tune_within(double bytes) {
        return run_tarno({"tune", "--model", model, "--output", table, "--memory-limit",
                          std::to_string(static_cast<int64_t>(bytes))});
    }

    /// Tunes with as little as the command says it needs, and looks at what it took.
    void expect_an_honest_need(const std::string& layer, double at_least) {
        const Outcome refused = tune_within(0.9 * at_least);
        expect_refusal(refused, 1, {model, layer, "for tuning", "--memory-limit"});
        EXPECT_FALSE(std::filesystem::exists(table));
        const double need = need_in(refused.err);
        EXPECT_GE(need, at_least);

        const double limit = 1.01 * need;
        const Outcome tuned = tune_within(limit);
        expect_success(tuned);
        if (sanitized) return;                            // whose heap is not the command's
        const Outcome info = run_tarno({"info", model});  // the process and the records of the file
        const auto of_tuning = static_cast<double>(tuned.peak_resident - info.peak_resident);
        EXPECT_LE(of_tuning / mebibyte, limit / mebibyte);
        EXPECT_GE(of_tuning, 0.5 * at_least) << "a measurement of nothing";
    }
};

TEST_F(MemoryLimit, ATuningCountsItsTensorsAndBounds) {
    modelkit::ModelHeader header;
    header.base_w = 256;
    header.base_h = 256;
    NetBuilder net(header, 2);
    const int image = net.input(16);
    const int first = net.depthwise(image, 3, 1, 1, ActivationType_ReLU);
    net.pooling(net.eltwise({image, first}, 0, ActivationType_ReLU), 1, 2, 2);
    ASSERT_TRUE(net.save(model).ok()) << net.status().message();
    // The input and its copy, two layers with their activations; the bounds are of twice the size.
    expect_an_honest_need("layer ", (6 + 2) * 4 * mebibyte);
}

TEST_F(MemoryLimit, ATuningCountsTheWeightsItNotes) {
    NetBuilder net;
    const int features = net.tensor_input({2048});
    net.fully_connected(features, 2048, 4096);
    ASSERT_TRUE(net.save(model).ok()) << net.status().message();
    // In the net, noted, and in an operator.
    expect_an_honest_need("layer 1 (FullConnection)", 3 * 32 * mebibyte);
}

/// A convolution whose default operator has no scratch and whose matrix form has much.
class HungryTable : public MemoryLimit {
protected:
    void SetUp() override {
        modelkit::ModelHeader header;
        header.base_w = 64;
        header.base_h = 64;
        NetBuilder net(header, 2);
        net.conv(net.input(8), 8, 5, 1, 2);
        save(net, 8, 64, 64);
        write_file(table, table_of({"Input_Fallback", "Convolution_Float_Blas"}));
    }
};

TEST_F(HungryTable, ARunCountsTheScratchOfItsOperators) {
    // Two tensors and a border of 144 KiB at the most each; 64 * 64 patches of 201 floats.
    const std::string out = folder / "out.npy";
    const std::vector<std::string> words = {
        "run", "--model", model, "--input", input, "--output", out, "--memory-limit", "2M"};
    expect_success(run_tarno(words));
    std::filesystem::remove(out);
    std::vector<std::string> with_table = words;
    with_table.insert(with_table.end(), {"--table", table});
    expect_refusal(run_tarno(with_table), 1,
                   {model, "layer 1 (Conv2D)", "2.0 MiB", "--memory-limit"});
    EXPECT_FALSE(std::filesystem::exists(out));
}

TEST_F(HungryTable, AComparisonCountsBothNets) {
    const std::vector<std::string> words = {"bench", "--model",         model, "--table",
                                            table,   "--runs",          "2",   "--warmup",
                                            "1",     "--compare-tables"};
    expect_success(run_tarno(words));
    std::vector<std::string> limited = words;
    limited.insert(limited.end(), {"--memory-limit", "2M"});
    expect_refusal(run_tarno(limited), 1, {model, "layer 1 (Conv2D)", "--memory-limit"});
}

}  // namespace
