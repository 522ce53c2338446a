#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tools/command.h"

namespace {

using namespace command_test;

using Words = std::vector<std::string>;

TEST(CommandLine, HelpFitsAPageAndNamesAllCommands) {
    const Outcome outcome = run_tarno({"--help"});
    expect_success(outcome);
    for (const char* command : {"info", "run", "bench", "tune", "compare"}) {
        EXPECT_NE(outcome.out.find(std::string("\n  ") + command + " "), std::string::npos)
            << command;
    }
    for (const Words& words :
         {Words{"--help"}, Words{"info", "--help"}, Words{"run", "--help"}, Words{"bench", "-h"},
          Words{"compare", "--help"}}) {
        const Outcome help = run_tarno(words);
        expect_success(help);
        std::istringstream lines(help.out);
        size_t count = 0;
        for (std::string line; std::getline(lines, line); ++count) {
            EXPECT_LE(line.size(), 100u) << line;
        }
        EXPECT_GT(count, 10u);
    }
}

TEST(CommandLine, HelpOfRunStatesWhatCannotBeGuessed) {
    const std::string help = run_tarno({"run", "--help"}).out;
    for (const char* part : {"--mean 123.675,116.28,103.53", "1/255", "2G", "10G", "time",
                             "0 to 1 as 0 to 255", "White"}) {
        EXPECT_NE(help.find(part), std::string::npos) << part;
    }
}

TEST(CommandLine, VersionIsOneLine) {
    const Outcome outcome = run_tarno({"--version"});
    expect_success(outcome);
    EXPECT_EQ(outcome.out, "tarno " TARNO_VERSION "\n");
}

struct Misuse {
    const char* name;
    Words words;
    Words parts;
};

class Misused : public testing::TestWithParam<Misuse> {};

TEST_P(Misused, IsOneLineWithStatus2) {
    const Outcome outcome = run_tarno(GetParam().words);
    expect_refusal(outcome, 2, GetParam().parts);
    EXPECT_EQ(outcome.out, "");
}

// The files need not be there: a wrong command line is found before one is opened.
const Words run_words = {"run", "--model", "m", "--input", "i.png"};

Words with(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, Misused,
    testing::Values(
        Misuse{"NoCommand", {}, {"info", "run", "bench"}},
        Misuse{"UnknownCommand", {"shwo"}, {"info", "run", "bench", "\"shwo\""}},
        Misuse{"UnknownOption", {"info", "m", "--colour"}, {"--colour"}},
        Misuse{"InfoWithoutModel", {"info"}, {"MODEL"}},
        Misuse{"InfoOfTwoModels", {"info", "a", "b"}, {"b"}},
        Misuse{"InfoInTwoForms", {"info", "m", "--json", "--dot"}, {"--json", "--dot"}},
        Misuse{"SizeWithoutX", {"info", "m", "--size", "256"}, {"--size", "\"256\""}},
        Misuse{"SizeOfZero", {"info", "m", "--size", "0x4"}, {"--size", "\"0x4\""}},
        Misuse{"SizeTooLarge", {"info", "m", "--size", "4x65536"}, {"--size", "65535"}},
        Misuse{"RunWithoutModel", {"run", "--input", "i"}, {"--model"}},
        Misuse{"RunWithoutInput", {"run", "--model", "m", "--output", "o.png"}, {"--input"}},
        Misuse{"RunWithoutOutput", run_words, {"--output", "--composite", "--all-layers"}},
        Misuse{"OutputOfUnknownKind", with(run_words, {"--output", "o.bmp"}), {".png", "o.bmp"}},
        Misuse{"OutputWithoutKind", with(run_words, {"--output", "png"}), {".png", "\"png\""}},
        Misuse{"CompositeOfUnknownKind", with(run_words, {"--composite", "o.npy"}), {"o.npy"}},
        Misuse{"OneFileForTwo",
               with(run_words, {"--output", "o.png", "--composite", "o.png"}),
               {"o.png"}},
        Misuse{"MeanOfLetters",
               with(run_words, {"--output", "o.png", "--mean", "1,x"}),
               {"--mean", "1,x"}},
        Misuse{"MeanWithEmptyPlace",
               with(run_words, {"--output", "o.png", "--mean", "1,,2"}),
               {"--mean", "1,,2"}},
        Misuse{"NormOverZero",
               with(run_words, {"--output", "o.png", "--norm", "1/0"}),
               {"--norm", "1/0"}},
        Misuse{"UnknownPixelType",
               with(run_words, {"--output", "o.png", "--pixel-type", "yuv"}),
               {"--pixel-type", "bgr", "yuv"}},
        Misuse{"LayerOfLetters",
               with(run_words, {"--output", "o.png", "--layer", "two"}),
               {"--layer", "two"}},
        Misuse{"BackgroundOfFourNumbers",
               with(run_words, {"--composite", "o.png", "--background", "1,2,3,4"}),
               {"--background", "1,2,3,4"}},
        Misuse{"BackgroundTooBright",
               with(run_words, {"--composite", "o.png", "--background", "1,2,256"}),
               {"--background", "1,2,256"}},
        Misuse{"RepeatOfZero",
               with(run_words, {"--output", "o.png", "--repeat", "0"}),
               {"--repeat", "0"}},
        Misuse{"ResizeOfNothing",
               with(run_words, {"--all-layers", "d", "--resize-output"}),
               {"--resize-output", "--output"}},
        Misuse{"MemoryInUnknownUnit",
               with(run_words, {"--output", "o.png", "--memory-limit", "2X"}),
               {"--memory-limit", "2X"}},
        Misuse{"WorkWithoutNumber",
               with(run_words, {"--output", "o.png", "--work-limit", "G"}),
               {"--work-limit", "\"G\""}},
        Misuse{"NoRuns", {"bench", "--model", "m", "--runs", "0"}, {"--runs", "0"}},
        Misuse{"NegativeWarmup", {"bench", "--model", "m", "--warmup", "-1"}, {"--warmup", "-1"}},
        Misuse{"NoDuration", {"bench", "--model", "m", "--duration", "0"}, {"--duration"}},
        Misuse{"EndlessDuration", {"bench", "--model", "m", "--duration", "inf"}, {"--duration"}},
        Misuse{"NoRate", {"bench", "--model", "m", "--fps", "0"}, {"--fps"}},
        Misuse{"RateOfLetters", {"bench", "--model", "m", "--fps", "fast"}, {"--fps", "fast"}}),
    [](const testing::TestParamInfo<Misuse>& info) { return info.param.name; });

TEST(CommandLine, AFullDiskBehindStandardOutputIsAnError) {
    // Only where the system has such a device.
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full here";
    const std::string command = std::string("'") + TARNO_COMMAND + "' --help > /dev/full 2> ";
    const Folder folder;
    const int result = std::system((command + folder / "err").c_str());
    EXPECT_EQ(WEXITSTATUS(result), 1);
    EXPECT_NE(read_file(folder / "err").find("standard output"), std::string::npos);
}

}  // namespace
