// What the tests of `tarno tune` and of tables share: a model in a folder of its own, a table, an
// input, and how far outputs may be apart.
#pragma once

#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/rounding_bounds.h"
#include "tools/array_files.h"
#include "tools/command.h"

namespace command_test {

/// A table of these classes, in this order.
inline std::string table_of(const std::vector<std::string>& names) {
    std::string text = "{\n";
    for (const std::string& name : names) {
        text += name == "nullptr" ? "{nullptr, 0, 0},\n"
                                  : "{TarnoCPU::" + name + "_operator_creator, 0, 0},\n";
    }
    return text + "};\n";
}

/// The largest absolute value of each channel.
inline std::vector<double> magnitudes_of(const Array& array) {
    std::vector<double> largest(static_cast<size_t>(array.c), 0.0);
    const size_t pixels = static_cast<size_t>(array.h) * array.w;
    for (size_t i = 0; i < array.values.size(); ++i) {
        largest[i / pixels] =
            std::max(largest[i / pixels], std::fabs(static_cast<double>(array.values[i])));
    }
    return largest;
}

class Tuning : public testing::Test {
protected:
    /// Writes the model, and a wave of c x h x w numbers as its input.
    void save(const modelkit::NetBuilder& net, int c, int h, int w) {
        ASSERT_TRUE(net.save(model).ok()) << net.status().message();
        std::vector<float> values(static_cast<size_t>(c) * h * w);
        for (size_t i = 0; i < values.size(); ++i) {
            values[i] = std::sin(static_cast<float>(i) * 0.37f);
        }
        write_file(input, npy_file("<f4",
                                   "(" + std::to_string(c) + ", " + std::to_string(h) + ", " +
                                       std::to_string(w) + ")",
                                   raw(values)));
    }

    std::string tuned() {
        const Outcome outcome = run_tarno({"tune", "--model", model, "--output", table});
        expect_success(outcome);
        report = outcome.out;
        return read_file(table);
    }

    Array output_of(const std::vector<std::string>& extra) {
        const std::string out = folder / "out.npy";
        std::vector<std::string> words = {"run",    "--model", model,      "--input", input,
                                          "--norm", "1",       "--output", out};
        words.insert(words.end(), extra.begin(), extra.end());
        expect_success(run_tarno(words));
        return read_array(out);
    }

    /// Runs the model by the default rule and by the table. The bound is that of the sums' lengths
    /// and sizes, and it has to be small beside what it is a bound for.
    void expect_the_same_within_rounding() {
        const std::string blobs = folder / "blobs";
        const Array by_rule = output_of({"--all-layers", blobs});
        const Array by_table = output_of({"--table", table});
        ASSERT_EQ(by_rule.values.size(), by_table.values.size());
        ASSERT_FALSE(by_rule.values.empty());

        testing_support::RoundingBounds::Magnitudes magnitudes;
        for (const auto& entry : std::filesystem::directory_iterator(blobs)) {
            // "012_7_Conv.npy": of a layer and its fused activation, the activation comes last.
            const std::string name = entry.path().filename().string();
            const int place = std::atoi(name.c_str());
            const unsigned short id = static_cast<unsigned short>(std::atoi(name.c_str() + 4));
            if (place < last_places[id]) continue;
            last_places[id] = place;
            magnitudes[id] = magnitudes_of(read_array(entry.path().string()));
        }
        const testing_support::RoundingBounds bounds(model, magnitudes);
        const auto [low, high] = std::minmax_element(by_rule.values.begin(), by_rule.values.end());
        const double spread = static_cast<double>(*high) - static_cast<double>(*low);
        const size_t pixels = static_cast<size_t>(by_rule.h) * by_rule.w;
        double widest = 0.0;
        for (size_t i = 0; i < by_rule.values.size(); ++i) {
            const double bound = bounds.apart(i / pixels);
            widest = std::max(widest, bound);
            EXPECT_NEAR(by_rule.values[i], by_table.values[i], bound) << i;
        }
        EXPECT_LT(widest, spread / 100.0) << "nothing could be told apart";
        RecordProperty("bound", std::to_string(widest));
    }

    /// One line, status 1, and each of the words in it.
    void expect_table_refused(const std::string& text, const std::vector<std::string>& words) {
        const std::string edited = folder / "edited.h";
        write_file(edited, text);
        const std::string none = folder / "none.npy";
        expect_refusal(run_tarno({"run", "--model", model, "--table", edited, "--input", input,
                                  "--output", none}),
                       1, words);
        EXPECT_FALSE(std::filesystem::exists(none));
    }

    Folder folder;
    std::string model = folder / "net.zqnet";
    std::string table = folder / "table.h";
    std::string input = folder / "input.npy";
    std::string report;  ///< of the last `tuned`

private:
    std::map<unsigned short, int> last_places;
};

}  // namespace command_test
