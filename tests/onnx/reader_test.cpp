// Files that are no models, or not ours to read.
#include <gtest/gtest.h>
#include <modelkit/onnx/reader.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/made_model.h"
#include "support/peak_memory.h"
#include "support/temporary_folder.h"

namespace {

using namespace onnx_test;
using modelkit::onnx::read_graph;
using testing_support::Folder;
using testing_support::PeakMemory;

MadeModel small_model() {
    MadeModel model;
    model.input("x", {1, 2, 4, 4}).output("y").random("w", {3, 2, 3, 3}, 1);
    model.node("Conv", {"x", "w"}, {"c"}).node("Relu", {"c"}, {"y"});
    return model;
}

void expect_refusal(const std::string& bytes, const std::string& reason) {
    Graph graph;
    const modelkit::Status status = read_graph(bytes.data(), bytes.size(), "", graph);
    ASSERT_FALSE(status) << "was read, expected: " << reason;
    EXPECT_NE(status.message().find(reason), std::string::npos) << status.message();
    EXPECT_EQ(status.message().find('\n'), std::string::npos);
    EXPECT_TRUE(graph.nodes.empty());
}

TEST(Reader, ReadsNodesBehindWhatTheyRead) {
    MadeModel model = small_model();
    model.graph().mutable_node()->SwapElements(0, 1);
    const std::string bytes = model.bytes();
    Graph graph;
    const modelkit::Status status = read_graph(bytes.data(), bytes.size(), "", graph);
    ASSERT_TRUE(status) << status.message();
    EXPECT_EQ(graph.nodes[0].op_type, "Conv");
    EXPECT_EQ(graph.nodes[1].op_type, "Relu");
    EXPECT_EQ(graph.opset, 13);
    EXPECT_EQ(graph.inputs.size(), 1u);
}

TEST(Reader, InitializersAmongTheInputsAreNoInputs) {
    MadeModel model = small_model();
    model.input("w", {3, 2, 3, 3});
    const std::string bytes = model.bytes();
    Graph graph;
    ASSERT_TRUE(read_graph(bytes.data(), bytes.size(), "", graph));
    EXPECT_EQ(graph.inputs.size(), 1u);
}

TEST(Reader, RefusesWhatIsNoModel) {
    expect_refusal("", "is not an ONNX model");
    expect_refusal("not a model at all", "is not an ONNX model");
    expect_refusal(std::string(1000, '\0'), "is not an ONNX model");
    expect_refusal(std::string(1000, '\xff'), "is not an ONNX model");
    expect_refusal(onnx::ModelProto().SerializeAsString(), "is not an ONNX model");
}

TEST(Reader, RefusesOtherVersionsDomainsAndKinds) {
    expect_refusal(MadeModel(6).bytes(), "has operator set 6, expected one of 7 to 17");
    expect_refusal(MadeModel(18).bytes(), "has operator set 18, expected one of 7 to 17");
    expect_refusal(MadeModel(13, 2).bytes(), "has IR version 2, expected 3 to 8");
    expect_refusal(MadeModel(13, 99).bytes(), "has IR version 99, expected 3 to 8");
    MadeModel no_opset = small_model();
    no_opset.proto.clear_opset_import();
    expect_refusal(no_opset.bytes(), "names no operator set of the default domain");
    MadeModel twice = small_model();
    twice.proto.add_opset_import()->set_version(11);
    expect_refusal(twice.bytes(),
                   "names the operator sets 13 and 11 of the default domain, expected one");
    twice.proto.mutable_opset_import(1)->set_domain("ai.onnx");
    expect_refusal(twice.bytes(),
                   "names the operator sets 13 and 11 of the default domain, expected one");
    MadeModel foreign = small_model();
    foreign.graph().mutable_node(0)->set_domain("com.example");
    expect_refusal(foreign.bytes(), "is of the operator domain \"com.example\"");
    MadeModel sparse = small_model();
    sparse.graph().add_sparse_initializer();
    expect_refusal(sparse.bytes(), "sparse initializers");
    MadeModel functions = small_model();
    functions.proto.add_functions();
    expect_refusal(functions.bytes(), "functions of its own");
}

TEST(Reader, RefusesGraphsThatDoNotHoldTogether) {
    MadeModel missing = small_model();
    missing.graph().mutable_initializer()->Clear();
    expect_refusal(missing.bytes(), "reads \"w\", which is no input, no initializer");
    MadeModel cycle;
    cycle.input("x", {1}).output("a").node("Add", {"x", "b"}, {"a"}).node("Relu", {"a"}, {"b"});
    expect_refusal(cycle.bytes(), "the graph has a cycle");
    MadeModel itself;
    itself.input("x", {1}).output("a").node("Add", {"x", "a"}, {"a"});
    expect_refusal(itself.bytes(), "the graph has a cycle");
    MadeModel twice = small_model();
    twice.node("Relu", {"x"}, {"c"});
    expect_refusal(twice.bytes(), "makes the value \"c\", which is there already");
    MadeModel no_maker = small_model();
    no_maker.output("z");
    expect_refusal(no_maker.bytes(), "the output \"z\" is made by no node");
    MadeModel no_output = small_model();
    no_output.graph().clear_output();
    expect_refusal(no_output.bytes(), "has no outputs");
}

TEST(Reader, RefusesTensorsThatDoNotFitTheirShape) {
    const auto with = [](const std::function<void(onnx::TensorProto&)>& change) {
        MadeModel model = small_model();
        change(*model.graph().mutable_initializer(0));
        return model.bytes();
    };
    expect_refusal(with([](onnx::TensorProto& t) { t.mutable_raw_data()->pop_back(); }),
                   "has 215 bytes, expected 216 for shape [3, 2, 3, 3] of float");
    expect_refusal(with([](onnx::TensorProto& t) { t.clear_raw_data(); }),
                   "has 0 values, expected 54");
    expect_refusal(with([](onnx::TensorProto& t) { t.set_dims(0, -3); }), "is not possible");
    expect_refusal(with([](onnx::TensorProto& t) {
                       t.set_dims(0, int64_t{1} << 62);
                       t.set_dims(1, int64_t{1} << 62);
                   }),
                   "is not possible");
    expect_refusal(with([](onnx::TensorProto& t) { t.set_data_type(8); }),
                   "element type 8 is not supported");
    expect_refusal(with([](onnx::TensorProto& t) { t.set_data_type(999); }),
                   "element type 999 is not supported");
    expect_refusal(with([](onnx::TensorProto& t) { t.clear_name(); }),
                   "an initializer has no name");
}

TEST(Reader, ReadsHalvesAndIntegersAsTheirNumbers) {
    MadeModel model;
    model.input("x", {1, 1, 1, 1}).output("y").node("Relu", {"x"}, {"y"});
    onnx::TensorProto& halves = *model.graph().add_initializer();
    halves.set_name("halves");
    halves.set_data_type(onnx::TensorProto::FLOAT16);
    halves.add_dims(4);
    for (const int bits : {0x3c00, 0xc000, 0x0001, 0x7c00}) halves.add_int32_data(bits);
    onnx::TensorProto& brain = *model.graph().add_initializer();
    brain.set_name("brain");
    brain.set_data_type(onnx::TensorProto::BFLOAT16);
    brain.add_dims(1);
    brain.set_raw_data(std::string("\xc0\x3f", 2));
    const std::string bytes = model.bytes();
    Graph graph;
    ASSERT_TRUE(read_graph(bytes.data(), bytes.size(), "", graph));
    const Tensor& read = graph.initializers.at("halves");
    EXPECT_EQ(read.number(0), 1.0);
    EXPECT_EQ(read.number(1), -2.0);
    EXPECT_EQ(read.number(2), 0x1p-24);
    EXPECT_TRUE(std::isinf(read.number(3)));
    EXPECT_EQ(graph.initializers.at("brain").number(0), 1.5);
}

TEST(Reader, SurvivesEveryCutAndFlippedByte) {
    const std::string bytes = small_model().bytes();
    for (size_t length = 0; length < bytes.size(); ++length) {
        const Converted cut = convert_only(bytes.substr(0, length));
        if (!cut.status) {
            EXPECT_EQ(cut.status.message().find('\n'), std::string::npos);
        }
    }
    for (size_t i = 0; i < bytes.size(); ++i) {
        for (const int bit : {1, 16, 128}) {
            std::string flipped = bytes;
            flipped[i] = static_cast<char>(flipped[i] ^ bit);
            const Converted result = convert_only(flipped);
            if (!result.status) {
                EXPECT_EQ(result.status.message().find('\n'), std::string::npos);
            }
        }
    }
}

TEST(Reader, RefusesAMillionNodes) {
    MadeModel model;
    model.input("x", {1, 1, 1, 1});
    std::string last = "x";
    for (int i = 0; i < 1000000; ++i) {
        const std::string next = std::to_string(i);
        model.node("Relu", {last}, {next});
        last = next;
    }
    model.output(last);
    expect_refusal(model.bytes(), "has 1000000 nodes, expected at most 100000");
}

TEST(Reader, AHundredThousandNodesAreTooManyLayersButNoHarm) {
    MadeModel model;
    model.input("x", {1, 1, 1, 1});
    std::string last = "x";
    for (int i = 0; i < 100000; ++i) {
        const std::string next = std::to_string(i);
        model.node("Relu", {last}, {next});
        last = next;
    }
    model.output(last);
    const Converted result = convert_only(model.bytes());
    ASSERT_FALSE(result.status);
    EXPECT_NE(result.status.message().find("has 100000 nodes that compute"), std::string::npos)
        << result.status.message();
}

TEST(Reader, CountsNodesBeforeItMakesThem) {
    // Two bytes each in the file, two hundred in memory. Those inside of attributes count.
    onnx::ModelProto model = small_model().proto;
    onnx::GraphProto& inside =
        *model.mutable_graph()->mutable_node(0)->add_attribute()->mutable_g();
    for (int i = 0; i < 5000000; ++i) inside.add_node();
    std::string bytes = model.SerializeAsString();
    model.Clear();
    onnx::ModelProto().Swap(&model);
    const PeakMemory peak;
    expect_refusal(bytes, "has 5000002 nodes, expected at most 100000");
    EXPECT_LT(peak.growth(), 32e6);
}

TEST(Reader, CountsThePartsOfAllMessages) {
    onnx::ModelProto names = small_model().proto;
    for (int i = 0; i < 3000000; ++i) names.mutable_graph()->mutable_node(1)->add_input();
    expect_refusal(names.SerializeAsString(), "texts, lists and parts, expected at most 3000000");
    onnx::ModelProto dims = small_model().proto;
    auto& shape = *dims.mutable_graph()->add_value_info()->mutable_type()->mutable_tensor_type();
    for (int i = 0; i < 3000000; ++i) shape.mutable_shape()->add_dim();
    expect_refusal(dims.SerializeAsString(), "texts, lists and parts, expected at most 3000000");
}

class ExternalData : public testing::Test {
protected:
    // The weights of the small model in a file of the folder.
    void save(const std::string& location, const std::string& offset = "",
              const std::string& length = "") {
        MadeModel model = small_model();
        onnx::TensorProto& tensor = *model.graph().mutable_initializer(0);
        weights = tensor.raw_data();
        tensor.clear_raw_data();
        tensor.set_data_location(onnx::TensorProto::EXTERNAL);
        const auto entry = [&tensor](const char* key, const std::string& value) {
            if (value.empty()) return;
            onnx::StringStringEntryProto& added = *tensor.add_external_data();
            added.set_key(key);
            added.set_value(value);
        };
        entry("location", location);
        entry("offset", offset);
        entry("length", length);
        std::filesystem::create_directories(folder / "model");
        testing_support::write_file(folder / "model/m.onnx", model.bytes());
    }
    void expect_refused(const std::string& reason) {
        Graph graph;
        const modelkit::Status status = read_graph(folder / "model/m.onnx", graph);
        ASSERT_FALSE(status) << "was read";
        EXPECT_NE(status.message().find(reason), std::string::npos) << status.message();
    }
    Folder folder;
    std::string weights;
};

TEST_F(ExternalData, IsReadFromTheModelsFolder) {
    save("w.bin", "8", "216");
    testing_support::write_file(folder / "model/w.bin", std::string(8, 'x') + weights);
    Graph graph;
    const modelkit::Status status = read_graph(folder / "model/m.onnx", graph);
    ASSERT_TRUE(status) << status.message();
    EXPECT_EQ(graph.initializers.at("w").size(), 54u);
    float first;
    std::memcpy(&first, weights.data(), sizeof(first));
    EXPECT_EQ(graph.initializers.at("w").number(0), static_cast<double>(first));
}

TEST_F(ExternalData, IsNeverFollowedOutside) {
    save("x");
    testing_support::write_file(folder / "outside.bin", weights);
    save("../outside.bin");
    expect_refused("lies outside the model's folder");
    save(folder / "outside.bin");
    expect_refused("lies outside the model's folder");
    save("sub/../../outside.bin");
    expect_refused("lies outside the model's folder");
    save("link.bin");
    ASSERT_EQ(symlink((folder / "outside.bin").c_str(), (folder / "model/link.bin").c_str()), 0);
    expect_refused("lies outside the model's folder");
    save(std::string("w.bin\0.txt", 10));
    expect_refused("lies outside the model's folder");
}

TEST_F(ExternalData, HasToBeThereAndLongEnough) {
    save("none.bin");
    expect_refused("external data \"none.bin\"");
    save("w.bin");
    testing_support::write_file(folder / "model/w.bin", weights.substr(1));
    expect_refused("has 215 bytes, expected 216 from byte 0");
    save("w.bin", "18446744073709551615");
    expect_refused("offset");
    save("w.bin", "999999999999999999");
    expect_refused("from byte 999999999999999999");
    save("w.bin", "", "12");
    expect_refused("external data of 12 bytes, expected 216");
    save(".");
    expect_refused("is not a file");
}

// Convolutions that all name the same bytes.
void save_sharing(const std::string& path, int tensors, int64_t channels) {
    MadeModel model;
    model.input("x", {1, channels, 1, 1});
    for (int i = 0; i < tensors; ++i) {
        const std::string n = std::to_string(i);
        onnx::TensorProto& tensor = *model.graph().add_initializer();
        tensor.set_name("w" + n);
        tensor.set_data_type(onnx::TensorProto::FLOAT);
        for (const int64_t size : {channels, channels, int64_t{1}, int64_t{1}})
            tensor.add_dims(size);
        tensor.set_data_location(onnx::TensorProto::EXTERNAL);
        onnx::StringStringEntryProto& entry = *tensor.add_external_data();
        entry.set_key("location");
        entry.set_value(i % 2 == 0 ? "w.bin" : "same.bin");
        model.node("Conv", {i == 0 ? "x" : "y" + std::to_string(i - 1), "w" + n}, {"y" + n});
    }
    model.output("y" + std::to_string(tensors - 1));
    testing_support::write_file(path, model.bytes());
}

TEST_F(ExternalData, IsSharedByTwoTensorsAndNotByAThousand) {
    std::filesystem::create_directories(folder / "model");
    const std::string path = folder / "model/m.onnx";
    std::vector<float> numbers(size_t{1} << 20);
    for (size_t i = 0; i < numbers.size(); ++i) numbers[i] = static_cast<float>(i);
    testing_support::write_file(
        folder / "model/w.bin",
        std::string(reinterpret_cast<const char*>(numbers.data()), numbers.size() * 4));
    // Another name for a file gives it no more bytes.
    ASSERT_EQ(link((folder / "model/w.bin").c_str(), (folder / "model/same.bin").c_str()), 0);
    Graph graph;
    save_sharing(path, 2, 1024);
    const modelkit::Status two = read_graph(path, graph);
    ASSERT_TRUE(two) << two.message();
    EXPECT_EQ(std::get<std::vector<float>>(graph.initializers.at("w1").values), numbers);
    graph = Graph();
    const PeakMemory peak;
    save_sharing(path, 1000, 1024);
    expect_refused(
        "\"w2\": external data \"w.bin\" has 4194304 bytes, expected at most twice as many in all "
        "tensors together, found 12582912");
    EXPECT_LT(peak.growth(), 64e6);
}

TEST(TensorFile, HasItsNumbersInItself) {
    onnx::TensorProto tensor;
    tensor.set_data_type(onnx::TensorProto::FLOAT);
    tensor.add_dims(2);
    tensor.set_data_location(onnx::TensorProto::EXTERNAL);
    onnx::StringStringEntryProto& entry = *tensor.add_external_data();
    entry.set_key("location");
    entry.set_value("w.bin");
    const Folder folder;
    testing_support::write_file(folder / "t.pb", tensor.SerializeAsString());
    testing_support::write_file(folder / "w.bin", std::string(8, '\0'));
    Tensor read;
    EXPECT_EQ(modelkit::onnx::read_tensor(folder / "t.pb", read).message(),
              "is expected to hold its numbers, found them in another file, \"w.bin\"");
}

TEST(TensorFile, IsABareTensor) {
    onnx::TensorProto tensor;
    tensor.set_data_type(onnx::TensorProto::FLOAT);
    tensor.add_dims(2);
    tensor.add_float_data(1.0f);
    tensor.add_float_data(-2.5f);
    const Folder folder;
    testing_support::write_file(folder / "t.pb", tensor.SerializeAsString());
    Tensor read;
    ASSERT_TRUE(modelkit::onnx::read_tensor(folder / "t.pb", read));
    EXPECT_EQ(read.numbers(), (std::vector<double>{1.0, -2.5}));
    EXPECT_FALSE(modelkit::onnx::read_tensor(folder / "none.pb", read));
}

}  // namespace
