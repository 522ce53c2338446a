// The whole networks of tests/onnx/reference, converted for both engines by the command and run on
// both by the command.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "onnx/made_model.h"
#include "onnx/reference_files.h"
#include "tools/array_files.h"
#include "tools/command.h"

namespace {

using namespace command_test;

// What the GPU engine lacks of a network, and where. All others have to agree.
const std::map<std::string, std::vector<std::string>> REFUSED = {
    {"denoiser", {"the input \"input\"", "the GPU engine has no layer", "TensorInput"}},
    {"one_frame_denoiser", {"the input \"input\"", "the GPU engine has no layer", "TensorInput"}},
    {"fire_classifier",
     {"node \"/features/features.0/Conv\" (Conv)", "a kernel of 3x3 or 5x5 for a depthwise",
      "on the GPU engine, found 2x2"}},
};

/// Converts and compares on one seeded input of the shape `dims`, a batch of one.
void expect_agreement(const std::string& model, const std::vector<int64_t>& dims,
                      const std::vector<float>& values) {
    const Folder folder;
    write_file(folder / "net.onnx", model);
    expect_success(run_tarno({"convert", "--input", folder / "net.onnx", "--output",
                              folder / "net.zqnet", "--engines", "both"},
                             300));
    std::string shape;
    for (size_t i = 1; i < dims.size(); ++i) shape += std::to_string(dims[i]) + ", ";
    write_file(folder / "x.npy", npy_file("<f4", "(" + shape + ")", raw(values)));
    const Outcome compared =
        run_tarno({"compare", "--model", folder / "net.zqnet", "--input", folder / "x.npy"}, 300);
    expect_success(compared);
    EXPECT_NE(compared.out.find("differ by no more than half storage explains"), std::string::npos)
        << compared.out;
    for (const char* remark : {"left out: ", "not judged: "}) {
        EXPECT_EQ(compared.out.find(remark), std::string::npos) << compared.out;
    }
}

class NetworkOnBothEngines : public testing::TestWithParam<std::string> {};

TEST_P(NetworkOnBothEngines, AgreesOrIsRefusedAtTheNode) {
    const auto reference = onnx_reference::read_reference("networks", GetParam());
    const auto refused = REFUSED.find(GetParam());
    if (refused == REFUSED.end()) {
        ASSERT_EQ(reference.inputs.size(), 1u);
        const modelkit::onnx::Tensor& input = reference.inputs.begin()->second;
        expect_agreement(reference.bytes, input.dims, std::get<std::vector<float>>(input.values));
        return;
    }
    const Folder folder;
    write_file(folder / "net.onnx", reference.bytes);
    expect_refusal(run_tarno({"convert", "--input", folder / "net.onnx", "--output",
                              folder / "net.zqnet", "--engines", "both"}),
                   1, refused->second);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"net.onnx"});
}

INSTANTIATE_TEST_SUITE_P(Whole, NetworkOnBothEngines,
                         testing::ValuesIn(onnx_reference::names_in("networks")),
                         [](const auto& info) { return info.param; });

// Kernels that go by blocks, depthwise ones of 5x5, limits and slopes as several layers, channels
// that are no fours.
TEST(LayersOnBothEngines, AgreeWhereTheyAreRewritten) {
    using Ints = std::vector<int64_t>;
    onnx_test::MadeModel model;
    model.input("x", {1, 3, 32, 24}).output("y");
    model.random("stem", {5, 3, 7, 7}, 1, 0.3).random("deep", {5, 1, 5, 5}, 2, 0.3);
    model.random("up", {5, 6, 6, 6}, 3, 0.2).random("patch", {7, 6, 2, 2}, 4, 0.4);
    model.random("last", {7, 3, 4, 4}, 5, 0.3).random("b", {6}, 6, 0.5);
    model.floats("low", {}, {-1.5f}).floats("high", {}, {2.5f});
    const onnx_test::With two = {"strides", Ints{2, 2}};
    model.node("Conv", {"x", "stem"}, {"1"}, {two, {"pads", Ints{3, 3, 3, 3}}});
    model.node("LeakyRelu", {"1"}, {"2"}, {{"alpha", 0.3}});
    model.node("Conv", {"2", "deep"}, {"3"}, {{"group", 5}, {"pads", Ints{2, 2, 2, 2}}});
    model.node("ConvTranspose", {"3", "up", "b"}, {"4"}, {two, {"pads", Ints{2, 2, 2, 2}}});
    model.node("Clip", {"4", "low", "high"}, {"5"});
    model.node("Conv", {"5", "patch"}, {"6"}, {two}).node("Relu", {"6"}, {"7"});
    model.node("ConvTranspose", {"7", "last"}, {"8"}, {two, {"pads", Ints{1, 1, 1, 1}}});
    model.node("Sigmoid", {"8"}, {"y"});
    expect_agreement(model.bytes(), {1, 3, 32, 24},
                     testing_support::uniform_fill(7, -1, 1, 3 * 32 * 24));
}

}  // namespace
