// tarno convert: what it writes, what it prints and what it refuses.
#include <gtest/gtest.h>
#include <modelkit/names.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "onnx/made_model.h"
#include "tools/array_files.h"
#include "tools/command.h"

namespace {

using namespace command_test;
using onnx_test::MadeModel;
using onnx_test::With;
using Ints = std::vector<int64_t>;
using Words = std::vector<std::string>;

MadeModel small_model() {
    MadeModel model;
    model.input("picture", {-1, 3, 8, 6}).output("map");
    model.random("w", {4, 3, 3, 3}, 1).random("b", {4}, 2).random("v", {1, 4, 1, 1}, 3);
    model.node("Conv", {"picture", "w", "b"}, {"c"}, {{"pads", Ints{1, 1, 1, 1}}});
    model.node("Relu", {"c"}, {"r"}).node("Conv", {"r", "v"}, {"logit"});
    model.node("Sigmoid", {"logit"}, {"map"});
    model.graph().mutable_node(0)->set_name("/stem/conv");
    return model;
}

class Convert : public testing::Test {
protected:
    void SetUp() override { write_file(input, small_model().bytes()); }

    Outcome convert(const Words& more = {}) {
        Words words = {"convert", "--input", input, "--output", output};
        words.insert(words.end(), more.begin(), more.end());
        return run_tarno(words);
    }
    void expect_nothing_written() { EXPECT_EQ(folder.names(), (Words{"net.onnx"})); }

    Folder folder;
    std::string input = folder / "net.onnx";
    std::string output = folder / "net.zqnet";
};

TEST_F(Convert, WritesAModelWithProofAndNames) {
    const Outcome outcome = convert();
    expect_success(outcome);
    for (const char* part : {"What rounding to halves changes", "/stem/conv",
                             "Outputs, between the CPU engine", "map", "1x3x8x6", "1x1x8x6"}) {
        EXPECT_NE(outcome.out.find(part), std::string::npos) << part << " in\n" << outcome.out;
    }
    EXPECT_EQ(folder.names(), (Words{"net.onnx", "net.zqnet", "net.zqnet.names"}));
    const Outcome info = run_tarno({"info", output});
    expect_success(info);
    for (const char* part : {"/stem/conv", "layer 0, 1x3x8x6, picture", "layer 2, 1x1x8x6, map",
                             "base size         6 x 8"}) {
        EXPECT_NE(info.out.find(part), std::string::npos) << part << " in\n" << info.out;
    }
    const Outcome json = run_tarno({"info", "--json", output});
    const auto read = nlohmann::json::parse(json.out);
    EXPECT_EQ(read["layers"][1]["name"], "/stem/conv");
    EXPECT_EQ(read["named_outputs"][0]["name"], "map");
    EXPECT_EQ(read["named_inputs"][0]["layer"], 0);
}

TEST_F(Convert, GivesAModelThatRuns) {
    expect_success(convert());
    write_file(folder / "x.npy", npy_file("<f4", "(3, 8, 6)", raw(std::vector<float>(144, 0.5f))));
    expect_success(run_tarno(
        {"run", "--model", output, "--input", folder / "x.npy", "--output", folder / "y.npy"}));
    EXPECT_EQ(read_array(folder / "y.npy").values.size(), 48u);
}

TEST_F(Convert, NamesOfAModelThatWasChangedAreNotShown) {
    expect_success(convert());
    std::string bytes = read_file(output);
    bytes[12] = 1;  // the application type
    write_file(output, bytes);
    const Outcome info = run_tarno({"info", output});
    expect_success(info);
    EXPECT_EQ(info.out.find("/stem/conv"), std::string::npos);
}

TEST_F(Convert, TheHeaderGetsWhatWasAskedFor) {
    expect_success(convert({"--model-id", "301000001", "--application-type", "3", "--gesture-mode",
                            "7", "--no-verify"}));
    const auto read = nlohmann::json::parse(run_tarno({"info", "--json", output}).out);
    EXPECT_EQ(read["header"]["model_id"], 301000001);
    EXPECT_EQ(read["header"]["application_type"], 3);
    EXPECT_EQ(read["header"]["gesture_mode"], 7);
}

TEST_F(Convert, ProofIsTheDefaultAndCanBeLeftOut) {
    const Outcome without = convert({"--no-verify"});
    expect_success(without);
    EXPECT_EQ(without.out.find("between the CPU engine"), std::string::npos);
    const std::string bytes = read_file(output);
    const Outcome with = convert({"--layers"});
    expect_success(with);
    EXPECT_NE(with.out.find("Layers, between the CPU engine"), std::string::npos);
    EXPECT_EQ(read_file(output), bytes);
}

TEST_F(Convert, TakesArraysAndTensorFilesForTheProof) {
    write_file(folder / "x.npy", npy_file("<f4", "(3, 8, 6)", raw(std::vector<float>(144, 0.5f))));
    expect_success(convert({"--data", folder / "x.npy"}));
    onnx::TensorProto tensor;
    tensor.set_data_type(onnx::TensorProto::FLOAT);
    for (const int64_t size : {1, 3, 8, 6}) tensor.add_dims(size);
    for (int i = 0; i < 144; ++i) tensor.add_float_data(0.25f);
    write_file(folder / "x.pb", tensor.SerializeAsString());
    expect_success(convert({"--data", folder / "x.pb"}));
}

TEST_F(Convert, DataThatDoesNotFitIsRefusedAndNothingIsWritten) {
    const Folder other;
    write_file(other / "x.npy", npy_file("<f4", "(3, 8, 5)", raw(std::vector<float>(120, 0.5f))));
    write_file(other / "x.pb", std::string("no tensor"));
    expect_refusal(convert({"--data", other / "x.npy"}), 1,
                   {"x.npy", "expected the shape 1x3x8x6 but for leading ones, found 3x8x5"});
    expect_refusal(convert({"--data", other / "x.pb"}), 1, {"x.pb"});
    expect_refusal(convert({"--data", other / "x.npy", "--data", other / "x.npy"}), 1,
                   {"net.onnx: expected 1 file of --data, for the one input, found 2"});
    expect_refusal(convert({"--data", other / "none.npy"}), 1, {"none.npy"});
    expect_nothing_written();
}

// As many numbers, other places: the proof would be one of another picture.
TEST_F(Convert, DataHasTheShapeOfTheInputButForLeadingOnes) {
    const Folder other;
    const std::string numbers = raw(std::vector<float>(144, 0.5f));
    const auto write_tensor = [&](const Ints& dims) {
        onnx::TensorProto tensor;
        tensor.set_data_type(onnx::TensorProto::FLOAT);
        for (const int64_t size : dims) tensor.add_dims(size);
        tensor.set_raw_data(numbers);
        write_file(other / "x.pb", tensor.SerializeAsString());
    };
    for (const char* shape : {"(1, 3, 8, 6)", "(1, 1, 1, 3, 8, 6)"}) {
        write_file(other / "x.npy", npy_file("<f4", shape, numbers));
        expect_success(convert({"--data", other / "x.npy"}));
    }
    write_tensor({3, 8, 6});
    expect_success(convert({"--data", other / "x.pb"}));
    std::filesystem::remove(output);
    std::filesystem::remove(modelkit::names_path(output));

    write_file(other / "x.npy", npy_file("<f4", "(8, 6, 3)", numbers));
    write_tensor({1, 8, 6, 3});
    const std::string expected = "expected the shape 1x3x8x6 but for leading ones, found ";
    expect_refusal(convert({"--data", other / "x.npy"}), 1, {"x.npy", expected + "8x6x3"});
    expect_refusal(convert({"--data", other / "x.pb"}), 1, {"x.pb", expected + "1x8x6x3"});
    std::string seventeen = "(";
    for (int i = 0; i < 14; ++i) seventeen += "1, ";
    write_file(other / "x.npy", npy_file("<f4", seventeen + "3, 8, 6)", numbers));
    expect_refusal(convert({"--data", other / "x.npy"}), 1,
                   {"x.npy", "expected 1 to 16 dimensions, found 17"});
    expect_nothing_written();
}

// A few hundred bytes may name inputs of any size.
TEST_F(Convert, InputsBeyondTheProofAreRefusedBeforeTheyAreMade) {
    MadeModel model;
    model.input("w", {1, 1, 16384, 16384}).input("x", {1, 1, 16384, 16384});
    model.input("y", {1, 1, 16384, 16384}).input("z", {1, 1, 16384, 16384}).output("sum");
    model.node("Sum", {"w", "x", "y", "z"}, {"sum"});
    write_file(input, model.bytes());
    ASSERT_LT(read_file(input).size(), 300u);
    const Folder other;
    write_file(other / "none.npy", std::string("no array"));
    const std::string data = other / "none.npy";
    for (const Words& more :
         {Words(), Words{"--data", data, "--data", data, "--data", data, "--data", data}}) {
        const Outcome outcome = convert(more);
        expect_refusal(outcome, 1,
                       {"net.onnx: no proof", "at most 268435456 numbers in all inputs expected",
                        "found 1073741824, of them 268435456 in \"w\"", "--no-verify"});
        if (!sanitized) {
            EXPECT_LT(outcome.peak_resident, int64_t{512} << 20);
        }
    }
    expect_nothing_written();
    expect_success(convert({"--no-verify"}));
}

TEST_F(Convert, TheLineNamesTheFileWhenMemoryRunsOut) {
    MadeModel model;
    model.input("x", {1, 1, 16384, 16384}).output("y").node("Relu", {"x"}, {"y"});
    write_file(input, model.bytes());
    if (sanitized) GTEST_SKIP() << "the address space belongs to the sanitizer";
    const Outcome outcome =
        run_tarno({"convert", "--input", input, "--output", output}, 120, rlim_t{768} << 20);
    expect_refusal(outcome, 1, {"net.onnx: expected enough memory, found none left"});
    expect_nothing_written();
}

TEST_F(Convert, DataOfWhichTheGraphMakesNoNumberIsNoProof) {
    const Folder other;
    std::vector<float> values(144, 0.5f);
    values[70] = std::numeric_limits<float>::quiet_NaN();
    write_file(other / "x.npy", npy_file("<f4", "(3, 8, 6)", raw(values)));
    expect_refusal(convert({"--data", other / "x.npy"}), 1,
                   {"net.onnx: no proof: the output \"map\" is not a number in the graph"});
    expect_nothing_written();
}

TEST_F(Convert, ACastThatRoundsIsANote) {
    MadeModel model;
    model.input("x", {1, 3, 4, 4}).output("y");
    model.node("Cast", {"x"}, {"half"}, {{"to", static_cast<int>(onnx::TensorProto::FLOAT16)}});
    model.node("Relu", {"half"}, {"y"});
    write_file(input, model.bytes());
    const Outcome outcome = convert();
    expect_success(outcome);
    EXPECT_NE(outcome.out.find("note: node \"half\": the cast to float16 is left out"),
              std::string::npos)
        << outcome.out;
}

TEST_F(Convert, WhatCannotBeConvertedIsOneLineAndNoFile) {
    MadeModel model;
    model.input("x", {1, 3, 4, 4}).output("y").node("Exp", {"x"}, {"y"});
    write_file(input, model.bytes());
    expect_refusal(convert(), 1, {"net.onnx", "node \"y\" (Exp)", "is not supported"});
    expect_nothing_written();
    write_file(input, std::string("no model"));
    expect_refusal(convert(), 1, {"net.onnx", "is not an ONNX model"});
    const std::string whole = small_model().bytes();
    write_file(input, whole.substr(0, whole.size() / 2));
    expect_refusal(convert(), 1, {"net.onnx", "cut off"});
    expect_nothing_written();
    expect_refusal(run_tarno({"convert", "--input", folder / "none", "--output", output}), 1,
                   {"none"});
    expect_refusal(run_tarno({"convert", "--input", folder.path, "--output", output}), 1,
                   {"expected a regular file, found a folder"});
    expect_nothing_written();
}

TEST_F(Convert, AModelThatIsThereStaysWhenAnotherIsRefused) {
    expect_success(convert());
    const std::string bytes = read_file(output);
    write_file(input, std::string("no model"));
    expect_refusal(convert(), 1, {"is not an ONNX model"});
    EXPECT_EQ(read_file(output), bytes);
}

// Writing a small model with its weights in another file.
void write_with_external_weights(const Folder& folder) {
    MadeModel model = small_model();
    onnx::TensorProto& tensor = *model.graph().mutable_initializer(0);
    write_file(folder / "w.bin", tensor.raw_data());
    tensor.clear_raw_data();
    tensor.set_data_location(onnx::TensorProto::EXTERNAL);
    onnx::StringStringEntryProto& entry = *tensor.add_external_data();
    entry.set_key("location");
    entry.set_value("w.bin");
    write_file(folder / "net.onnx", model.bytes());
}

TEST_F(Convert, AnOutputThatIsAnInputIsRefusedAndTheInputStays) {
    write_with_external_weights(folder);
    const std::string data = folder / "x.npy";
    write_file(data, npy_file("<f4", "(3, 8, 6)", raw(std::vector<float>(144, 0.5f))));
    std::filesystem::create_symlink(input, folder / "link.onnx");
    std::filesystem::create_directory(folder / "sub");
    std::filesystem::create_symlink(folder / "w.bin", folder / "m.names");
    std::filesystem::copy(input, folder / "z.names");
    const std::vector<std::string> all = folder.names();
    const std::string model = read_file(input);
    const std::string weights = read_file(folder / "w.bin");
    const std::string array = read_file(data);

    struct Case {
        std::string input, output, named;
    };
    const std::vector<Case> cases = {
        {input, input, "net.onnx"},
        {input, folder / "link.onnx", "link.onnx"},
        {folder / "link.onnx", input, "net.onnx"},
        {input, folder / "sub/../net.onnx", "sub/../net.onnx"},
        {folder / "z.names", folder / "z", "z.names"},
        {input, data, "x.npy"},
        {input, folder / "w.bin", "w.bin"},
        {input, folder / "m", "m.names"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.input + " to " + each.output);
        expect_refusal(
            run_tarno({"convert", "--input", each.input, "--output", each.output, "--data", data}),
            1, {each.named, "expected a place for the output apart from the inputs"});
        EXPECT_EQ(folder.names(), all);
        EXPECT_TRUE(read_file(input) == model);
        EXPECT_TRUE(read_file(folder / "z.names") == model);
        EXPECT_TRUE(read_file(folder / "w.bin") == weights);
        EXPECT_TRUE(read_file(data) == array);
    }
    expect_success(convert({"--data", data}));
}

TEST_F(Convert, NothingIsWrittenWithoutRoomForTheReport) {
    // Only where the system has such a device.
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full here";
    const Folder other;
    const std::string command = std::string("'") + TARNO_COMMAND + "' convert --input '" + input +
                                "' --output '" + output + "' > /dev/full 2> '" + (other / "err") +
                                "'";
    const int result = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(result), 1);
    EXPECT_NE(read_file(other / "err").find("tarno: standard output: expected room to write"),
              std::string::npos);
    expect_nothing_written();
}

TEST_F(Convert, NamesWithLineEndsStayOneLine) {
    MadeModel model;
    model.input("x", {1, 3, 4, 4}).output("y").node("Exp", {"x"}, {"y"});
    model.graph().mutable_node(0)->set_name("two\nlines\x1b[31m");
    write_file(input, model.bytes());
    expect_refusal(convert(), 1, {"two?lines?[31m"});
}

TEST_F(Convert, OpenShapesAreGivenByName) {
    MadeModel model;
    model.input("x", {1, 3, -1, -1}).output("y").node("Relu", {"x"}, {"y"});
    write_file(input, model.bytes());
    expect_refusal(convert(), 1, {"the input \"x\" leaves open [1, 3, -1, -1]", "--shape"});
    expect_success(convert({"--shape", "x=1,3,5,7"}));
    expect_refusal(convert({"--shape", "z=1,3,5,7"}), 1, {"has no input \"z\""});
    for (const char* text : {"x", "x=", "=1", "x=1,,2", "x=1,0", "x=1,-2", "x=a"}) {
        expect_refusal(convert({"--shape", text}), 2, {"--shape", "expected NAME=1,3,224,224"});
    }
}

TEST_F(Convert, EnginesAreNamed) {
    expect_success(convert({"--engines", "both"}));
    expect_success(convert({"--engines", "gpu"}));
    expect_refusal(convert({"--engines", "tpu"}), 2,
                   {"--engines: expected cpu, gpu or both, found \"tpu\""});
    MadeModel model;
    model.input("x", {1, 4, 8, 8}).output("y").node("Tanh", {"x"}, {"y"});
    write_file(input, model.bytes());
    expect_refusal(convert({"--engines", "both"}), 1, {"node \"y\" (Tanh)", "the GPU engine"});
    expect_success(convert());
}

TEST_F(Convert, AModelForBothEnginesAgreesOnBoth) {
    MadeModel model;
    model.input("x", {1, 3, 32, 32}).output("y");
    model.random("w", {8, 3, 3, 3}, 1, 0.4).random("d", {8, 1, 3, 3}, 2, 0.5);
    model.random("p", {12, 8, 1, 1}, 3, 0.5).random("t", {12, 4, 2, 2}, 4, 0.4);
    model.floats("scale", {8, 1, 1}, {1, 2, 0.5f, 1, 1, 1.5f, 1, 1});
    model.floats("scales", {4}, {1, 1, 2, 2});
    const With pads = {"pads", Ints{1, 1, 1, 1}};
    const With two = {"strides", Ints{2, 2}};
    model.node("Conv", {"x", "w"}, {"1"}, {pads, two}).node("Relu", {"1"}, {"2"});
    model.node("Conv", {"2", "d"}, {"3"}, {pads, {"group", 8}}).node("Relu", {"3"}, {"4"});
    model.node("Mul", {"4", "scale"}, {"5"}).node("Add", {"5", "2"}, {"6"});
    model.node("Relu", {"6"}, {"7"});
    model.node("MaxPool", {"7"}, {"8"}, {{"kernel_shape", Ints{3, 3}}, pads, two});
    model.node("Conv", {"8", "p"}, {"9"}).node("ConvTranspose", {"9", "t"}, {"10"}, {two});
    model.node("Resize", {"10", "", "scales"}, {"11"}, {{"mode", "linear"}});
    model.node("Sigmoid", {"11"}, {"y"});
    write_file(input, model.bytes());
    expect_success(convert({"--engines", "both"}));
    std::vector<float> numbers(3 * 32 * 32);
    for (size_t i = 0; i < numbers.size(); ++i) {
        numbers[i] = static_cast<float>(i * 37 % 101) / 101.0f;
    }
    write_file(folder / "x.npy", npy_file("<f4", "(3, 32, 32)", raw(numbers)));
    const Outcome compared = run_tarno({"compare", "--model", output, "--input", folder / "x.npy"});
    expect_success(compared);
    EXPECT_NE(compared.out.find("differ by no more than half storage explains"), std::string::npos)
        << compared.out;
}

TEST_F(Convert, TheWordsOfTheCommandLineAreChecked) {
    expect_refusal(run_tarno({"convert", "--output", output}), 2, {"--input"});
    expect_refusal(run_tarno({"convert", "--input", input}), 2, {"--output"});
    expect_refusal(convert({"--no-verify", "--layers"}), 2, {"--no-verify"});
    expect_refusal(convert({"--model-id", "x"}), 2, {"--model-id"});
    expect_nothing_written();
}

TEST(ShippedModel, IsWhatItsOnnxFileConvertsTo) {
    const Folder folder;
    const std::string models = TARNO_SOURCE_DIR "/assets/models/portrait_segmentation";
    const Outcome converted =
        run_tarno({"convert", "--input", models + ".onnx", "--output", folder / "m.zqnet",
                   "--model-id", "301000001", "--application-type", "3", "--engines", "both"});
    expect_success(converted);
    EXPECT_TRUE(read_file(folder / "m.zqnet") == read_file(models + ".zqnet"));
    // The file holds what training left, not numbers that were halves before: rounding them to
    // halves shows in every output.
    EXPECT_EQ(converted.out.find("0.00e+00"), std::string::npos) << converted.out;
}

}  // namespace
