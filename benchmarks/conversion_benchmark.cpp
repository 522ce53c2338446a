// Time and memory of converting an ONNX file of some 50 MB of weights, without proof.
//
// The baseline of the same run is what no converter can do without: reading the file's bytes once
// and writing half of them. Memory is the process's own peak between the steps, as a multiple of
// the file.
#include <benchmark/benchmark.h>
#include <modelkit/model_writer.h>
#include <modelkit/onnx/converter.h>
#include <modelkit/onnx/reader.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int WIDTH = 256;
constexpr int LAYERS = 21;  // of 3 x 3 x 256 x 256 floats: 49.5 MB

std::string temporary(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

void add_node(onnx::GraphProto& graph, const char* type, const std::vector<std::string>& inputs,
              const std::string& output) {
    onnx::NodeProto& node = *graph.add_node();
    node.set_op_type(type);
    for (const std::string& input : inputs) node.add_input(input);
    node.add_output(output);
    if (std::string(type) != "Conv") return;
    onnx::AttributeProto& pads = *node.add_attribute();
    pads.set_name("pads");
    pads.set_type(onnx::AttributeProto::INTS);
    for (int i = 0; i < 4; ++i) pads.add_ints(1);
}

/// Convolutions with batch normalisations behind them, as exporters write them.
int64_t make_model(const std::string& path) {
    onnx::ModelProto model;
    model.set_ir_version(7);
    model.add_opset_import()->set_version(13);
    onnx::GraphProto& graph = *model.mutable_graph();
    onnx::ValueInfoProto& input = *graph.add_input();
    input.set_name("x");
    input.mutable_type()->mutable_tensor_type()->set_elem_type(onnx::TensorProto::FLOAT);
    for (const int size : {1, WIDTH, 8, 8}) {
        input.mutable_type()->mutable_tensor_type()->mutable_shape()->add_dim()->set_dim_value(
            size);
    }
    uint32_t state = 1;
    const auto tensor = [&](const std::string& name, const std::vector<int64_t>& dims) {
        onnx::TensorProto& added = *graph.add_initializer();
        added.set_name(name);
        added.set_data_type(onnx::TensorProto::FLOAT);
        size_t count = 1;
        for (const int64_t size : dims) {
            added.add_dims(size);
            count *= static_cast<size_t>(size);
        }
        std::vector<float> values(count);
        for (float& value : values) {
            state = state * 1664525u + 1013904223u;
            value = static_cast<float>(state >> 8) * 0x1p-28f + 0.01f;
        }
        added.set_raw_data(values.data(), values.size() * sizeof(float));
    };
    std::string last = "x";
    for (int i = 0; i < LAYERS; ++i) {
        const std::string n = std::to_string(i);
        tensor("w" + n, {WIDTH, WIDTH, 3, 3});
        for (const char* name : {"s", "b", "m", "v"}) tensor(name + n, {WIDTH});
        add_node(graph, "Conv", {last, "w" + n}, "c" + n);
        add_node(graph, "BatchNormalization", {"c" + n, "s" + n, "b" + n, "m" + n, "v" + n},
                 "n" + n);
        last = "r" + n;
        add_node(graph, "Relu", {"n" + n}, last);
    }
    graph.add_output()->set_name(last);
    std::ofstream file(path, std::ios::binary);
    model.SerializeToOstream(&file);
    file.close();
    return static_cast<int64_t>(std::filesystem::file_size(path));
}

/// The peak of resident memory since it was last forgotten, in bytes.
int64_t peak_memory() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
    }
    return 0;
}
void forget_peak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

struct Files {
    Files() : model(temporary("tarno_bench.onnx")), out(temporary("tarno_bench.zqnet")) {
        size = make_model(model);
    }
    ~Files() {
        std::remove(model.c_str());
        std::remove(out.c_str());
    }
    std::string model;
    std::string out;
    int64_t size = 0;
};

Files& files() {
    static Files made;
    return made;
}

void read_and_write(benchmark::State& state) {
    std::vector<unsigned char> bytes(static_cast<size_t>(files().size));
    for (auto _ : state) {
        std::ifstream in(files().model, std::ios::binary);
        in.read(reinterpret_cast<char*>(bytes.data()), files().size);
        const std::vector<unsigned char> half(bytes.begin(), bytes.begin() + files().size / 2);
        if (!modelkit::save_bytes(files().out, half)) state.SkipWithError("not written");
    }
    state.SetBytesProcessed(state.iterations() * files().size);
}
BENCHMARK(read_and_write)->Unit(benchmark::kMillisecond);

void convert(benchmark::State& state) {
    double peak = 0;
    for (auto _ : state) {
        state.PauseTiming();
        forget_peak();
        const int64_t before = peak_memory();
        state.ResumeTiming();
        modelkit::onnx::ConvertOptions options;
        options.keep_rounded = false;
        modelkit::onnx::Graph graph;
        modelkit::onnx::Conversion conversion;
        if (!modelkit::onnx::read_graph(files().model, graph) ||
            !modelkit::onnx::convert(std::move(graph), options, conversion) ||
            !modelkit::save_bytes(files().out, conversion.file)) {
            state.SkipWithError("not converted");
        }
        state.PauseTiming();
        peak = std::max(peak, static_cast<double>(peak_memory() - before));
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * files().size);
    state.counters["file_MB"] = static_cast<double>(files().size) / 1e6;
    state.counters["peak_over_file"] = peak / static_cast<double>(files().size);
}
BENCHMARK(convert)->Unit(benchmark::kMillisecond);

}  // namespace
