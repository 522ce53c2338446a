// Converting takes at most three times the file, whatever form the weights have.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
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
using testing_support::Folder;
using testing_support::PeakMemory;

constexpr size_t NUMBERS = size_t{1} << 22;  // 16 MB of floats

onnx::TensorProto& add_weights(MadeModel& model, const std::vector<int64_t>& dims, bool halves) {
    onnx::TensorProto& tensor = *model.graph().add_initializer();
    tensor.set_name("w");
    tensor.set_data_type(halves ? onnx::TensorProto::FLOAT16 : onnx::TensorProto::FLOAT);
    for (const int64_t size : dims) tensor.add_dims(size);
    tensor.set_raw_data(std::string(NUMBERS * (halves ? 2 : 4), '\x3a'));
    return tensor;
}

struct Form {
    const char* name;
    std::vector<int64_t> input;
    std::vector<int64_t> weights;
    bool halves;
    std::function<void(MadeModel& model)> nodes;
};

void PrintTo(const Form& form, std::ostream* out) {
    *out << form.name;
}

std::vector<Form> forms() {
    const std::vector<int64_t> picture = {1, 1024, 2, 2};
    const std::vector<int64_t> kernels = {1024, 1024, 2, 2};
    const std::vector<int64_t> twice = {2, 2};
    return {
        {"one_conv", picture, kernels, false,
         [](MadeModel& model) {
             model.node("Conv", {"x", "w"}, {"y"});
         }},
        {"normalised", picture, kernels, false,
         [](MadeModel& model) {
             model.floats("one", {1024}, std::vector<float>(1024, 1.0f));
             model.node("Conv", {"x", "w"}, {"c"});
             model.node("BatchNormalization", {"c", "one", "one", "one", "one"}, {"y"});
         }},
        {"halves", picture, kernels, true,
         [](MadeModel& model) {
             model.node("Cast", {"w"}, {"f"}, {{"to", 1}}).node("Conv", {"x", "f"}, {"y"});
         }},
        {"transposed_conv", picture, kernels, false,
         [twice](MadeModel& model) {
             model.node("ConvTranspose", {"x", "w"}, {"y"}, {{"strides", twice}});
         }},
        {"gemm",
         {1, 2048},
         {2048, 2048},
         false,
         [](MadeModel& model) {
             model.node("Gemm", {"x", "w"}, {"y"}, {{"transB", 1}});
         }},
        {"matmul",
         {1, 2048},
         {2048, 2048},
         false,
         [](MadeModel& model) {
             model.node("MatMul", {"x", "w"}, {"y"});
         }},
        {"matmul_of_a_transpose",
         {1, 2048},
         {2048, 2048},
         false,
         [](MadeModel& model) {
             model.node("Transpose", {"w"}, {"t"}).node("MatMul", {"x", "t"}, {"y"});
         }},
    };
}

class ConversionMemory : public testing::TestWithParam<Form> {};

/// Ends the process, with status 0 when the conversion took less than `most` bytes.
void convert_within(const std::string& path, double most) {
    ConvertOptions options;
    options.keep_rounded = false;
    Conversion conversion;
    const PeakMemory peak;
    modelkit::Status done = modelkit::Status::success();
    {
        Graph graph;
        done = modelkit::onnx::read_graph(path, graph);
        if (done) done = convert(std::move(graph), options, conversion);
    }
    const double growth = peak.growth();
    std::fprintf(stderr, "%s, %.1f MB of at most %.1f\n", done.message().c_str(), growth * 1e-6,
                 most * 1e-6);
    std::exit(done && growth < most && conversion.file.size() >= 2 * NUMBERS ? 0 : 1);
}

TEST_P(ConversionMemory, IsAtMostThreeTimesTheFile) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer keeps what was freed";
#endif
    const Form& form = GetParam();
    const Folder folder;
    const std::string path = folder / "model.onnx";
    {
        MadeModel model;
        model.input("x", form.input).output("y");
        add_weights(model, form.weights, form.halves);
        form.nodes(model);
        testing_support::write_file(path, model.bytes());
    }
    const auto size = static_cast<double>(std::filesystem::file_size(path));
    // In a process of its own: what tests before have left of the heap would be in the figure.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(convert_within(path, 3 * size), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Forms, ConversionMemory, testing::ValuesIn(forms()),
                         [](const testing::TestParamInfo<Form>& info) { return info.param.name; });

}  // namespace
