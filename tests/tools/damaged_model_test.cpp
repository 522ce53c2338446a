// Model files cut off and changed at random, through the command.
//
// A file that is cut between two records is a shorter model, and a changed weight is another
// weight: such files may run. All others are refused in one line. None may crash, hang, or take
// memory out of proportion.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tools/array_files.h"
#include "tools/command.h"

namespace {

using namespace command_test;

constexpr int time_limit = 60;  // seconds; a sanitizer makes a slow process of it
constexpr rlim_t enough_memory = rlim_t{1} << 30;

/// One layer of most kinds over a small picture.
std::string many_layers() {
    modelkit::ModelHeader header;
    header.base_w = 16;
    header.base_h = 16;
    modelkit::NetBuilder net(header);
    const int image = net.input(3);
    const int down = net.conv(image, 4, 3, 2, 1, ActivationType_ReLU);
    const int depthwise = net.depthwise(down, 3, 1, 1, ActivationType_ReLU6);
    const int sum = net.eltwise({down, depthwise}, 0, ActivationType_LeakyReLU);
    const int normal = net.batchnorm(sum);
    const int pooled = net.pooling(normal, 1, 2, 2);
    const int large = net.upsampling(pooled, 2.0);
    const int joined = net.concat({large, sum});
    const int up = net.deconvolution(joined, 4, 4, 2, 1, ActivationType_Tanh);
    const int shuffled = net.pixel_shuffle(up, 2.0);
    const int map = net.conv(shuffled, 1, 1, 1, 0, ActivationType_Sigmoid);
    net.activation(net.pooling(map, 0, 4, 4), ActivationType_Linear, 2.0, 1.0);
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(net.write(bytes).ok()) << net.status().message();
    return std::string(bytes.begin(), bytes.end());
}

/// Layers of absolute sizes.
std::string audio_model() {
    modelkit::NetBuilder net;
    const int input = net.tensor_input({3, 5});
    const int lstm = net.lstm(input, 5, 4, true, true);
    const int row = net.reshape(lstm, {1, 24});
    net.tensor_activation(net.fully_connected(row, 24, 4), ActivationType_Sigmoid);
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(net.write(bytes).ok()) << net.status().message();
    return std::string(bytes.begin(), bytes.end());
}

class DamagedModel : public testing::Test {
protected:
    void SetUp() override {
        write_file(picture, npy_file("<f4", "(3, 16, 16)", raw(std::vector<float>(768, 0.5f))));
        write_file(audio, npy_file("<f4", "(3, 5)", raw(std::vector<float>(15, 0.5f))));
    }

    /// Info and run, with limits that keep an odd but sound model short. The count of those that
    /// were refused.
    int check(const std::string& bytes, const std::string& input, const std::string& what) {
        SCOPED_TRACE(what);
        write_file(model, bytes);
        int refused = 0;
        const Outcome info = run_tarno({"info", model}, time_limit, enough_memory);
        const Outcome run = run_tarno({"run", "--model", model, "--input", input, "--output", out,
                                       "--memory-limit", "256M", "--work-limit", "50M"},
                                      time_limit, enough_memory);
        for (const Outcome* outcome : {&info, &run}) {
            if (outcome->status == 0) {
                EXPECT_EQ(outcome->err, "");
                continue;
            }
            ++refused;
            expect_refusal(*outcome, 1, {model, "expected"});
        }
        EXPECT_EQ(run.status == 0, std::filesystem::exists(out));
        std::filesystem::remove(out);
        EXPECT_EQ(folder.names(), (std::vector<std::string>{"audio.npy", "m.zqnet", "p.npy"}));
        return refused;
    }

    Folder folder;
    std::string model = folder / "m.zqnet";
    std::string picture = folder / "p.npy";
    std::string audio = folder / "audio.npy";
    std::string out = folder / "o.npy";
};

/// Where the records of a model end.
std::vector<size_t> record_ends(const std::string& bytes) {
    std::vector<size_t> ends;
    // The two marks side by side, or the last mark; weights may hold the same bytes, which only
    // makes the list longer.
    for (size_t i = 1000; i + 1 < bytes.size(); i += 2) {
        const bool end = bytes.compare(i, 2, "\xaa\xaa") == 0;
        const bool start = i + 2 == bytes.size() || bytes.compare(i + 2, 2, "\x55\x55") == 0;
        if (end && start) ends.push_back(i + 2);
    }
    return ends;
}

TEST_F(DamagedModel, SoundModelsRun) {
    EXPECT_EQ(check(many_layers(), picture, "many layers"), 0);
    EXPECT_EQ(check(audio_model(), audio, "audio"), 0);
}

TEST_F(DamagedModel, CutAnywhereIsRefusedButBetweenRecords) {
    for (const auto& [whole, input] :
         {std::pair{many_layers(), picture}, std::pair{audio_model(), audio}}) {
        const std::vector<size_t> ends = record_ends(whole);
        EXPECT_GE(ends.size(), 5u);
        std::vector<size_t> sizes = {0, 1, 4, 500, 998, 999, 1000, 1001, 1002};
        for (const size_t end : ends) {
            for (const size_t less : {1, 2, 3})
                sizes.push_back(end - less);
            if (end < whole.size()) sizes.insert(sizes.end(), {end + 1, end + 2, end + 4, end + 6});
        }
        for (size_t size = 1003; size < whole.size(); size += 101)
            sizes.push_back(size);
        for (const size_t size : sizes) {
            const bool between = std::count(ends.begin(), ends.end(), size) != 0;
            const int refused =
                check(whole.substr(0, size), input, "cut to " + std::to_string(size));
            if (!between) {
                EXPECT_EQ(refused, 2) << size;
            }
        }
    }
}

TEST_F(DamagedModel, ChangedAnywhereIsRefusedOrRuns) {
    const unsigned int seed = 20240117;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 engine(seed);
    const auto below = [&](size_t n) { return engine() % static_cast<unsigned int>(n); };
    for (const auto& [whole, input] :
         {std::pair{many_layers(), picture}, std::pair{audio_model(), audio}}) {
        // Headers of records are rare among the bytes: half of the changes go there.
        const std::vector<size_t> ends = record_ends(whole);
        for (int i = 0; i < 120; ++i) {
            std::string bytes = whole;
            const int changes = 1 + static_cast<int>(below(3));
            for (int k = 0; k < changes; ++k) {
                size_t at = below(whole.size());
                if (engine() % 2 == 0)
                    at = (ends[below(ends.size() - 1)] + below(60)) % whole.size();
                const unsigned int kind = engine() % 4;
                if (kind == 0) bytes[at] = static_cast<char>(bytes[at] ^ 1 << below(8));
                if (kind == 1) bytes[at] = static_cast<char>(engine());
                if (kind == 2) bytes[at] = '\xff';
                if (kind == 3) bytes[at] = '\0';
            }
            check(bytes, input, "change " + std::to_string(i));
        }
    }
}

TEST_F(DamagedModel, EveryWordOfTheFirstRecordsBlownUp) {
    const std::string whole = many_layers();
    const std::vector<size_t> ends = record_ends(whole);
    // The fields in front of the weights of each record.
    std::vector<size_t> words;
    size_t start = 1000;
    for (const size_t end : ends) {
        for (size_t at = start; at + 1 < end && at < start + 46; at += 2)
            words.push_back(at);
        start = end;
    }
    std::mt19937 engine(7);
    std::shuffle(words.begin(), words.end(), engine);
    words.resize(std::min<size_t>(words.size(), 60));
    for (const size_t at : words) {
        for (const char* value : {"\xff\xff", "\x00\x40"}) {
            std::string bytes = whole;
            bytes.replace(at, 2, value, 2);
            check(bytes, picture, "word at " + std::to_string(at));
        }
    }
}

TEST_F(DamagedModel, AHeaderWithAnAbsurdBaseSize) {
    // An array brings its own size; a run over the base size is what bench does.
    const std::string whole = many_layers();
    for (const char* value : {"\xff\xff\xff\xff", "\x00\x00\x01\x00", "\x01\x00\x00\x00"}) {
        std::string bytes = whole;
        bytes.replace(20, 4, value, 4);
        write_file(model, bytes);
        expect_refusal(
            run_tarno({"bench", "--model", model, "--runs", "1", "--memory-limit", "16M"},
                      time_limit, enough_memory),
            1, {model, "expected", "found"});
    }
}

}  // namespace
