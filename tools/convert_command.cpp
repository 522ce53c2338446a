#include "convert_command.h"

#include <modelkit/names.h>
#include <modelkit/onnx/converter.h>
#include <modelkit/onnx/proof.h>
#include <modelkit/onnx/reader.h>
#include <tarno/model.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

#include "errors.h"
#include "files.h"
#include "library_reports.h"
#include "npy.h"
#include "numbers.h"
#include "progress.h"
#include "text_table.h"

namespace tool {
namespace {

namespace onnx = modelkit::onnx;

std::string percent(double share) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.4f %%", share * 100.0);
    return text;
}

std::string scientific(double number) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.2e", number);
    return text;
}

std::string dims_text(const std::vector<int64_t>& dims) {
    std::string text;
    for (const int64_t size : dims) text += (text.empty() ? "" : "x") + std::to_string(size);
    return text.empty() ? "scalar" : text;
}

onnx::Engines engines_of(const std::string& name) {
    if (name == "gpu") return onnx::Engines::Gpu;
    return name == "both" ? onnx::Engines::Both : onnx::Engines::Cpu;
}

/// The dimensions that say how numbers lie: leading ones, as of a batch, do not.
std::vector<int64_t> without_leading_ones(const std::vector<int64_t>& dims) {
    return {std::find_if(dims.begin(), dims.end(), [](int64_t size) { return size != 1; }),
            dims.end()};
}

onnx::Tensor read_data(const std::string& path, const std::vector<int64_t>& dims) {
    const auto expect_shape = [&](const std::vector<int64_t>& found) {
        if (without_leading_ones(found) == without_leading_ones(dims)) return;
        throw CommandError(path + ": expected the shape " + dims_text(dims) +
                           " but for leading ones, found " + dims_text(found));
    };
    onnx::Tensor tensor;
    if (extension_of(path) == ".pb") {
        const modelkit::Status read = onnx::read_tensor(path, tensor);
        if (!read) throw CommandError(path + ": " + read.message());
        expect_shape(tensor.dims);
    } else {
        const size_t most_dimensions = std::max<size_t>(16, dims.size());
        expect_shape(read_npy_shape(path, most_dimensions));
        NpyArray array = read_npy(path, most_dimensions);
        // The file may have been exchanged in between.
        expect_shape(array.shape);
        tensor = onnx::Tensor::of_floats(array.shape, std::move(array.values));
    }
    // The inputs are floats to both: what a double holds beyond is no difference of the model.
    std::vector<float> values(tensor.size());
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(tensor.number(i));
    return onnx::Tensor::of_floats(dims, std::move(values));
}

std::map<std::string, onnx::Tensor> inputs_for(const ConvertCommand& command,
                                               const onnx::Conversion& conversion) {
    if (command.data.empty()) return onnx::random_inputs(conversion, command.seed);
    const auto& wanted = conversion.names.inputs;
    if (command.data.size() != wanted.size()) {
        throw CommandError(command.input + ": expected " +
                           (wanted.size() == 1 ? "1 file of --data, for the one input"
                                               : std::to_string(wanted.size()) +
                                                     " files of --data, one for each input") +
                           ", found " + std::to_string(command.data.size()));
    }
    std::map<std::string, onnx::Tensor> inputs;
    for (size_t i = 0; i < wanted.size(); ++i) {
        inputs[wanted[i].name] = read_data(command.data[i], wanted[i].dims);
    }
    return inputs;
}

void print_model(const onnx::Conversion& conversion) {
    std::string text;
    for (const auto& input : conversion.names.inputs) {
        text += "input   layer " + std::to_string(input.layer) + "  " + dims_text(input.dims) +
                "  " + onnx::printable(input.name) + '\n';
    }
    for (const auto& output : conversion.names.outputs) {
        text += "output  layer " + std::to_string(output.layer) + "  " + dims_text(output.dims) +
                "  " + onnx::printable(output.name) + '\n';
    }
    text += "\nWhat rounding to halves changes\n\n";
    TextTable table;
    table.column("id", TextTable::right);
    table.column("kind", TextTable::left);
    table.column("weights", TextTable::right);
    table.column("all", TextTable::right);
    table.column("one at most", TextTable::right);
    table.column("node", TextTable::left);
    int64_t weights = 0;
    double largest = 0;
    for (const onnx::LayerReport& layer : conversion.layers) {
        if (layer.weights == 0) continue;
        weights += layer.weights;
        largest = std::max(largest, layer.mean_error);
        table.row({std::to_string(layer.id), zq_layer_type_name(layer.type), grouped(layer.weights),
                   percent(layer.mean_error), percent(layer.largest_error), layer.node});
    }
    table.rule();
    table.row({"", std::to_string(conversion.layers.size()) + " layers", grouped(weights),
               percent(largest), "", ""});
    text += table.text();
    text +=
        "\nAll: root of the summed squared changes over that of the weights. One at most: the\n"
        "largest change over the largest weight.\n";
    std::fputs(text.c_str(), stdout);
}

void print_proofs(const char* title, const std::vector<onnx::ValueProof>& proofs) {
    TextTable table;
    table.column("layer", TextTable::right);
    table.column("largest value", TextTable::right);
    table.column("maximum difference", TextTable::right);
    table.column("relative", TextTable::right);
    table.column("by halves", TextTable::right);
    table.column("other", TextTable::right);
    table.column("bound", TextTable::right);
    table.column("value", TextTable::left);
    for (const onnx::ValueProof& each : proofs) {
        table.row({std::to_string(each.layer), scientific(each.largest),
                   scientific(each.from_graph.maximum), percent(each.from_graph.relative),
                   scientific(each.by_halves.maximum), scientific(each.unexplained),
                   scientific(each.bound), onnx::printable(each.name)});
    }
    std::printf("\n%s\n\n%s", title, table.text().c_str());
}

void verify(const ConvertCommand& command, const onnx::Graph& original,
            const onnx::Conversion& conversion, const std::string& model_path) {
    const modelkit::Status has_room = onnx::require_room(conversion);
    if (!has_room) throw CommandError(command.input + ": no proof: " + has_room.message());
    const auto inputs = inputs_for(command, conversion);
    LibraryReports reports(command.verbose);
    std::string assertion;
    onnx::Proof proof;
    modelkit::Status proven = modelkit::Status::success();
    {
        const LibraryReports::Observation observation(
            reports, [&](const std::string& condition) { assertion = condition; });
        Progress progress("proving", 4);
        proven = onnx::prove(
            original, conversion, model_path, inputs, command.layers,
            [&](int done) { progress.step(done); }, proof);
    }
    if (proven.ok() && !assertion.empty()) {
        proven = modelkit::Status::failure("the engine expects " + assertion);
    }
    if (!proven) throw CommandError(command.input + ": no proof: " + proven.message());
    if (command.layers) {
        print_proofs("Layers, between the CPU engine and the graph", proof.layers);
    }
    print_proofs("Outputs, between the CPU engine and the graph", proof.outputs);
    std::printf(
        "\nBy halves: between the graph with the file's weights and the graph. Other: between the\n"
        "engine and the graph with the file's weights, which float sums explain up to the "
        "bound.\n");
    for (const onnx::ValueProof& output : proof.outputs) {
        if (output.holds()) continue;
        std::fflush(stdout);
        if (!output.halves_hold()) {
            throw CommandError(command.input + ": the output \"" + onnx::printable(output.name) +
                               "\": expected halves to change it by at most " +
                               scientific(output.halves_bound) + ", found " +
                               scientific(output.by_halves.maximum));
        }
        throw CommandError(command.input + ": the output \"" + onnx::printable(output.name) +
                           "\": expected a difference of at most " + scientific(output.bound) +
                           " beside that of the halves, found " + scientific(output.unexplained));
    }
}

}  // namespace

void parse_shape(const std::string& text, std::string& name, std::vector<int64_t>& dims) {
    const size_t equals = text.rfind('=');
    const auto fail = [&text]() {
        throw UsageError("--shape: expected NAME=1,3,224,224, found \"" + text + "\"");
    };
    if (equals == std::string::npos || equals == 0) fail();
    name = text.substr(0, equals);
    dims.clear();
    int64_t number = 0;
    bool digits = false;
    for (size_t i = equals + 1; i <= text.size(); ++i) {
        if (i == text.size() || text[i] == ',') {
            if (!digits || number == 0) fail();
            dims.push_back(number);
            number = 0;
            digits = false;
        } else if (text[i] >= '0' && text[i] <= '9' && number < 100000) {
            number = number * 10 + (text[i] - '0');
            digits = true;
        } else {
            fail();
        }
    }
}

namespace {

void convert_file(const ConvertCommand& command) {
    size_of_regular_file(command.input);
    OutputFiles files;
    const std::string names_path = modelkit::names_path(command.output);
    const auto expect_outputs_apart = [&]() {
        files.expect_apart(command.output);
        files.expect_apart(names_path);
    };
    files.keep(command.input);
    for (const std::string& data : command.data) files.keep(data);
    expect_outputs_apart();
    onnx::ConvertOptions options;
    options.engines = engines_of(command.engines);
    options.keep_rounded = !command.no_verify;
    options.header.model_id = command.model_id;
    options.header.application_type = command.application_type;
    options.header.gesture_mode = command.gesture_mode;
    for (const std::string& text : command.shapes) {
        std::string name;
        std::vector<int64_t> dims;
        parse_shape(text, name, dims);
        options.shapes[name] = dims;
    }

    onnx::Graph original;
    onnx::Conversion conversion;
    {
        Progress progress("converting", 2);
        onnx::Graph graph;
        progress.step(0);
        const modelkit::Status read = onnx::read_graph(command.input, graph);
        if (!read) throw CommandError(command.input + ": " + read.message());
        for (const std::string& weights : graph.external_files) files.keep(weights);
        expect_outputs_apart();
        progress.step(1);
        if (!command.no_verify) original = graph;
        const modelkit::Status converted = onnx::convert(std::move(graph), options, conversion);
        if (!converted) throw CommandError(command.input + ": " + converted.message());
    }
    files.write(names_path, modelkit::names_text(conversion.file, conversion.names));
    const std::vector<unsigned char>& bytes = conversion.file;
    const std::string model_path =
        files.write(command.output, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    print_model(conversion);
    for (const std::string& note : conversion.notes) std::printf("\nnote: %s\n", note.c_str());
    if (command.engines != "cpu") {
        std::printf(
            "\nThe GPU engine is checked by its layer tables, not run: tarno compare runs both.\n");
    }
    if (!command.no_verify) verify(command, original, conversion, model_path);
    files.commit();
}

}  // namespace

void convert(const ConvertCommand& command) {
    try {
        convert_file(command);
    } catch (const std::bad_alloc&) {
        throw CommandError(command.input + ": expected enough memory, found none left");
    }
}

}  // namespace tool
