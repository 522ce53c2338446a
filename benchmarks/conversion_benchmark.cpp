// Time and memory of converting ONNX files of some 50 MB of weights in several forms, without
// proof.
//
// The baseline of the same run is what no converter can do without: reading the file's bytes once
// and writing half of them. Every conversion is a process of its own; its memory is the largest
// resident size that it ever had (VmHWM), less what it had before it opened the file, as a multiple
// of the file and of the larger of file and model. Files are made in processes of their own, too,
// so that nothing of them is left in memory.
#include <benchmark/benchmark.h>
#include <modelkit/model_writer.h>
#include <modelkit/onnx/converter.h>
#include <modelkit/onnx/reader.h>
#include <onnx/onnx_pb.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string temporary(const std::string& name) {
    return (std::filesystem::temp_directory_path() / ("tarno_bench_" + name)).string();
}

class Model {
public:
    explicit Model(std::vector<int64_t> input) {
        model.set_ir_version(7);
        model.add_opset_import()->set_version(13);
        onnx::ValueInfoProto& x = *graph().add_input();
        x.set_name("x");
        onnx::TypeProto_Tensor& type = *x.mutable_type()->mutable_tensor_type();
        type.set_elem_type(onnx::TensorProto::FLOAT);
        for (const int64_t size : input) type.mutable_shape()->add_dim()->set_dim_value(size);
    }

    /// Small numbers, as floats or halves, in the file or in another one beside it.
    void tensor(const std::string& name, const std::vector<int64_t>& dims, bool halves = false,
                const std::string& external = "") {
        onnx::TensorProto& added = *graph().add_initializer();
        added.set_name(name);
        added.set_data_type(halves ? onnx::TensorProto::FLOAT16 : onnx::TensorProto::FLOAT);
        size_t count = 1;
        for (const int64_t size : dims) {
            added.add_dims(size);
            count *= static_cast<size_t>(size);
        }
        std::string bytes(count * (halves ? 2 : 4), '\0');
        for (size_t i = 0; i < count; ++i) {
            state = state * 1664525u + 1013904223u;
            const float value = static_cast<float>(state >> 8) * 0x1p-28f + 0.01f;
            const auto half = static_cast<uint16_t>(0x2000u + (state >> 20));
            std::memcpy(&bytes[i * (halves ? 2 : 4)],
                        halves ? static_cast<const void*>(&half) : &value, halves ? 2 : 4);
        }
        if (external.empty()) {
            added.set_raw_data(std::move(bytes));
            return;
        }
        std::ofstream(external, std::ios::binary) << bytes;
        added.set_data_location(onnx::TensorProto::EXTERNAL);
        onnx::StringStringEntryProto& location = *added.add_external_data();
        location.set_key("location");
        location.set_value(std::filesystem::path(external).filename().string());
    }

    onnx::NodeProto& node(const char* type, const std::vector<std::string>& inputs,
                          const std::string& output) {
        onnx::NodeProto& added = *graph().add_node();
        added.set_op_type(type);
        for (const std::string& input : inputs) added.add_input(input);
        added.add_output(output);
        return added;
    }
    static void set(onnx::NodeProto& node, const char* name, int64_t value) {
        onnx::AttributeProto& attribute = *node.add_attribute();
        attribute.set_name(name);
        attribute.set_type(onnx::AttributeProto::INT);
        attribute.set_i(value);
    }
    void conv(const std::string& input, const std::string& weights, const std::string& output) {
        onnx::AttributeProto& pads = *node("Conv", {input, weights}, output).add_attribute();
        pads.set_name("pads");
        pads.set_type(onnx::AttributeProto::INTS);
        for (int i = 0; i < 4; ++i) pads.add_ints(1);
    }

    void save(const std::string& path, const std::string& output) {
        graph().add_output()->set_name(output);
        std::ofstream file(path, std::ios::binary);
        model.SerializeToOstream(&file);
    }

private:
    onnx::GraphProto& graph() { return *model.mutable_graph(); }

    onnx::ModelProto model;
    uint32_t state = 1;
};

constexpr int WIDTH = 256;
constexpr int LAYERS = 21;  // of 3 x 3 x 256 x 256 weights

/// Convolutions with batch normalisations behind them, as exporters write them.
void conv_stack(const std::string& path, bool halves) {
    Model model({1, WIDTH, 8, 8});
    std::string last = "x";
    for (int i = 0; i < LAYERS; ++i) {
        const std::string n = std::to_string(i);
        model.tensor("w" + n, {WIDTH, WIDTH, 3, 3}, halves);
        if (halves) Model::set(model.node("Cast", {"w" + n}, "f" + n), "to", 1);
        for (const char* name : {"s", "b", "m", "v"}) model.tensor(name + n, {WIDTH});
        model.conv(last, (halves ? "f" : "w") + n, "c" + n);
        model.node("BatchNormalization", {"c" + n, "s" + n, "b" + n, "m" + n, "v" + n}, "n" + n);
        last = "r" + n;
        model.node("Relu", {"n" + n}, last);
    }
    model.save(path, last);
}

void one_conv(const std::string& path, bool halves, const std::string& external = "") {
    Model model({1, 1024, 4, 4});
    model.tensor("w", {1280, 1024, 3, 3}, halves, external);
    if (halves) Model::set(model.node("Cast", {"w"}, "f"), "to", 1);
    model.conv("x", halves ? "f" : "w", "y");
    model.save(path, "y");
}

void grouped_conv(const std::string& path) {
    Model model({1, 1536, 4, 4});
    model.tensor("w", {1536, 1536 / 64, 3, 3});
    onnx::NodeProto& node = model.node("Conv", {"x", "w"}, "y");
    Model::set(node, "group", 64);
    model.save(path, "y");
}

void product(const std::string& path, bool gemm) {
    Model model({1, 4096});
    model.tensor("w", {gemm ? 3072 : 4096, gemm ? 4096 : 3072});
    onnx::NodeProto& node = model.node(gemm ? "Gemm" : "MatMul", {"x", "w"}, "y");
    if (gemm) Model::set(node, "transB", 1);
    model.save(path, "y");
}

void transposed(const std::string& path) {
    Model model({1, 512, 8, 8});
    model.tensor("w", {512, 1408, 4, 4});
    onnx::AttributeProto& strides = *model.node("ConvTranspose", {"x", "w"}, "y").add_attribute();
    strides.set_name("strides");
    strides.set_type(onnx::AttributeProto::INTS);
    for (int i = 0; i < 2; ++i) strides.add_ints(2);
    model.save(path, "y");
}

void lstm(const std::string& path) {
    Model model({1, 1, 1280});
    model.tensor("w", {1, 4 * 1280, 1280});
    model.tensor("r", {1, 4 * 1280, 1280});
    Model::set(model.node("LSTM", {"x", "w", "r"}, "y"), "hidden_size", 1280);
    model.save(path, "y");
}

/// A line of the process's status, in bytes.
int64_t memory(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(name, 0) == 0) return std::stoll(line.substr(name.size())) * 1024;
    }
    return 0;
}

double processor_seconds() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Cost {
    double seconds = 0;
    int64_t memory = 0;
    bool done = false;
};

/// Runs `work` in a process of its own.
Cost apart(const std::function<bool()>& work) {
    Cost cost;
    int ends[2];
    if (pipe(ends) != 0) return cost;
    const pid_t child = fork();
    if (child == 0) {
        std::ofstream("/proc/self/clear_refs") << "5";  // the peak of the process it comes from
        const int64_t before = memory("VmRSS:");
        const double start = processor_seconds();
        cost.done = work();
        cost.seconds = processor_seconds() - start;
        cost.memory = memory("VmHWM:") - before;
        const bool told = write(ends[1], &cost, sizeof(cost)) == sizeof(cost);
        _exit(told ? 0 : 1);
    }
    close(ends[1]);
    if (child < 0 || read(ends[0], &cost, sizeof(cost)) != sizeof(cost)) cost = Cost();
    close(ends[0]);
    if (child > 0) waitpid(child, nullptr, 0);
    return cost;
}

bool convert_file(const std::string& from, const std::string& to) {
    modelkit::onnx::ConvertOptions options;
    options.keep_rounded = false;
    modelkit::onnx::Graph graph;
    modelkit::onnx::Conversion conversion;
    return modelkit::onnx::read_graph(from, graph).ok() &&
           modelkit::onnx::convert(std::move(graph), options, conversion).ok() &&
           modelkit::save_bytes(to, conversion.file).ok();
}

bool read_and_write(const std::string& from, const std::string& to, size_t size) {
    std::vector<unsigned char> bytes(size);
    std::ifstream in(from, std::ios::binary);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    bytes.resize(size / 2);
    return modelkit::save_bytes(to, bytes).ok();
}

using Make = void (*)(const std::string& path);

void run(benchmark::State& state, Make make, bool converts) {
    const std::string from = temporary("model.onnx");
    const std::string external = temporary("weights.bin");
    const std::string to = temporary("model.zqnet");
    std::remove(external.c_str());
    apart([&] {
        make(from);
        return true;
    });
    auto size = static_cast<int64_t>(std::filesystem::file_size(from));
    std::error_code none;
    const auto beside = std::filesystem::file_size(external, none);
    if (!none) size += static_cast<int64_t>(beside);
    int64_t peak = 0;
    int64_t model = 0;
    for (auto _ : state) {
        const Cost cost = apart([&] {
            return converts ? convert_file(from, to)
                            : read_and_write(from, to, static_cast<size_t>(size));
        });
        if (!cost.done) {
            state.SkipWithError("not converted");
            break;
        }
        state.SetIterationTime(cost.seconds);
        peak = std::max(peak, cost.memory);
        model = static_cast<int64_t>(std::filesystem::file_size(to));
    }
    for (const std::string& path : {from, external, to}) std::remove(path.c_str());
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["file_MB"] = static_cast<double>(size) / 1e6;
    state.counters["model_MB"] = static_cast<double>(model) / 1e6;
    state.counters["peak_over_file"] = static_cast<double>(peak) / static_cast<double>(size);
    state.counters["peak_over_larger"] =
        static_cast<double>(peak) / static_cast<double>(std::max(size, model));
}

void add(const char* name, Make make, bool converts = true) {
    benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { run(state, make, converts); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

const bool registered = [] {
    add(
        "read_and_write", [](const std::string& path) { conv_stack(path, false); }, false);
    add("conv_stack", [](const std::string& path) { conv_stack(path, false); });
    add("conv_stack_of_halves", [](const std::string& path) { conv_stack(path, true); });
    add("one_conv", [](const std::string& path) { one_conv(path, false); });
    add("one_conv_of_halves", [](const std::string& path) { one_conv(path, true); });
    add("one_conv_external",
        [](const std::string& path) { one_conv(path, false, temporary("weights.bin")); });
    add("grouped_conv", grouped_conv);
    add("conv_transpose", transposed);
    add("gemm_of_rows", [](const std::string& path) { product(path, true); });
    add("matmul", [](const std::string& path) { product(path, false); });
    add("lstm", lstm);
    return true;
}();

}  // namespace
