#include "info_command.h"

#include <modelkit/names.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "graph_text.h"
#include "library_reports.h"
#include "model_file.h"
#include "text_table.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

std::string pair_text(int w, int h) {
    return std::to_string(w) + "x" + std::to_string(h);
}

/// "1x1" is written "1", so that what is not square strikes the eye.
std::string side_text(int w, int h) {
    return w == h ? std::to_string(w) : pair_text(w, h);
}

std::string joined(const std::vector<unsigned short>& ids) {
    std::string text;
    for (const unsigned short id : ids) text += (text.empty() ? "" : " ") + std::to_string(id);
    return text;
}

/// Numbers of the layer that have no column of their own.
std::string options_text(const PlannedLayer& layer) {
    std::string text = layer.detail;
    const auto add = [&](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (layer.window && (layer.window->dilation_w != 1 || layer.window->dilation_h != 1)) {
        add("dilation " + side_text(layer.window->dilation_w, layer.window->dilation_h));
    }
    return text;
}

std::string name_of(const modelkit::ModelNames& names, unsigned short id) {
    const auto found = names.layers.find(id);
    return found == names.layers.end() ? std::string() : found->second;
}

std::string dims_text(const std::vector<int64_t>& dims) {
    std::string text;
    for (const int64_t size : dims) text += (text.empty() ? "" : "x") + std::to_string(size);
    return text.empty() ? "scalar" : text;
}

void print_text(const ModelFile& model, const ModelPlan& plan, const modelkit::ModelNames& names) {
    const ZQNetLoader& loader = model.loader;
    std::string text;
    const auto line = [&](const std::string& name, const std::string& value) {
        text += name + std::string(18 - name.size(), ' ') + value + '\n';
    };
    line("file", model.path + ", " + grouped(model.size) + " bytes");
    line("identity", loader.decodeModelID());
    line("version", std::to_string(loader.getVersion()));
    line("model id", std::to_string(loader.getModelID()));
    line("application type", std::to_string(loader.getApplicationType()));
    line("gesture mode", std::to_string(loader.getGestureMode()));
    line(
        "base size",
        std::to_string(loader.getModelBaseW()) + " x " + std::to_string(loader.getModelBaseH()) +
            (loader.getModelBaseW() != plan.base_w || loader.getModelBaseH() != plan.base_h
                 ? ", taken as " + std::to_string(plan.base_w) + " x " + std::to_string(plan.base_h)
                 : ""));

    for (const auto& input : names.inputs) {
        line("input", "layer " + std::to_string(input.layer) + ", " + dims_text(input.dims) + ", " +
                          input.name);
    }
    for (const auto& output : names.outputs) {
        line("output", "layer " + std::to_string(output.layer) + ", " + dims_text(output.dims) +
                           ", " + output.name);
    }

    text += "\nLayers in execution order\n\n";
    TextTable table;
    table.column("id", TextTable::right);
    table.column("kind", TextTable::left);
    table.column("reads", TextTable::left);
    table.column("output", TextTable::right);
    table.column("kernel", TextTable::right);
    table.column("stride", TextTable::right);
    table.column("pad", TextTable::right);
    table.column("activation", TextTable::left);
    table.column("parameters", TextTable::right);
    table.column("multiply-adds", TextTable::right);
    table.column("read by", TextTable::right);
    table.column("more", TextTable::left);
    const bool named = !names.layers.empty();
    if (named) table.column("name", TextTable::left);
    for (const PlannedLayer& layer : plan.layers) {
        const Window window = layer.window.value_or(Window());
        std::vector<std::string> cells = {
            std::to_string(layer.id),
            layer.kind,
            joined(layer.bottoms),
            layer.size ? size_text(*layer.size) : "?",
            layer.window ? side_text(window.kernel_w, window.kernel_h) : "",
            layer.window ? side_text(window.stride_w, window.stride_h) : "",
            layer.window ? side_text(window.pad_w, window.pad_h) : "",
            layer.activation,
            layer.parameters != 0 ? grouped(layer.parameters) : "",
            layer.multiply_adds != 0 ? grouped(layer.multiply_adds) : "",
            std::to_string(layer.read_count),
            options_text(layer)};
        if (named) cells.push_back(name_of(names, layer.id));
        table.row(cells);
    }
    table.rule();
    std::vector<std::string> totals = {"",
                                       std::to_string(plan.layers.size()) + " layers",
                                       "",
                                       "",
                                       "",
                                       "",
                                       "",
                                       "",
                                       grouped(plan.parameters),
                                       grouped(plan.multiply_adds),
                                       "",
                                       ""};
    if (named) totals.emplace_back();
    table.row(totals);
    text += table.text();

    if (!plan.refusal) {
        text += '\n';
        line("weights", bytes_text(plan.weight_bytes) + " in the engine");
        line("outputs", bytes_text(plan.all_tensor_bytes) + " of all layers together");
        line("peak of a run", bytes_text(plan.peak_bytes) + ", scratch included, at layer " +
                                  std::to_string(plan.layers[plan.peak_layer].id));
    }
    bool first = true;
    for (const PlannedLayer& layer : plan.layers) {
        for (const std::string& note : layer.notes) {
            if (first) text += "\nNotes\n\n";
            first = false;
            text += layer_text(layer.id, layer.type) + ": " + note + '\n';
        }
    }
    std::fputs(text.c_str(), stdout);
}

void print_json(const ModelFile& model, const ModelPlan& plan, const modelkit::ModelNames& names) {
    const ZQNetLoader& loader = model.loader;
    Json json;
    json["file"] = model.path;
    json["bytes"] = model.size;
    json["identity"] = loader.decodeModelID();
    json["header"] = {{"version", loader.getVersion()},
                      {"model_id", loader.getModelID()},
                      {"application_type", loader.getApplicationType()},
                      {"gesture_mode", loader.getGestureMode()},
                      {"model_base_w", loader.getModelBaseW()},
                      {"model_base_h", loader.getModelBaseH()}};
    json["base_size"] = {{"w", plan.base_w}, {"h", plan.base_h}};
    const auto tensors = [](const std::vector<modelkit::ModelNames::Tensor>& list) {
        Json array = Json::array();
        for (const auto& tensor : list) {
            array.push_back(
                {{"layer", tensor.layer}, {"dims", tensor.dims}, {"name", tensor.name}});
        }
        return array;
    };
    json["named_inputs"] = tensors(names.inputs);
    json["named_outputs"] = tensors(names.outputs);
    json["layers"] = Json::array();
    for (const PlannedLayer& layer : plan.layers) {
        Json each;
        each["id"] = layer.id;
        each["type"] = layer.type;
        each["kind"] = layer.kind;
        each["name"] = nullptr;
        if (names.layers.count(layer.id) != 0) each["name"] = name_of(names, layer.id);
        each["bottoms"] = layer.bottoms;
        each["shape"] = nullptr;
        if (layer.size) each["shape"] = {layer.size->c, layer.size->h, layer.size->w};
        if (layer.window) {
            const Window& window = *layer.window;
            each["kernel"] = {{"w", window.kernel_w}, {"h", window.kernel_h}};
            each["stride"] = {{"w", window.stride_w}, {"h", window.stride_h}};
            each["pad"] = {{"w", window.pad_w}, {"h", window.pad_h}};
            each["dilation"] = {{"w", window.dilation_w}, {"h", window.dilation_h}};
        }
        each["activation"] = nullptr;
        if (!layer.activation.empty()) each["activation"] = layer.activation;
        each["detail"] = layer.detail;
        each["parameters"] = layer.parameters;
        each["multiply_adds"] = layer.multiply_adds;
        each["read_count"] = layer.read_count;
        each["notes"] = layer.notes;
        json["layers"].push_back(each);
    }
    json["totals"] = {
        {"layers", plan.layers.size()},         {"parameters", plan.parameters},
        {"multiply_adds", plan.multiply_adds},  {"weight_bytes", plan.weight_bytes},
        {"peak_tensor_bytes", plan.peak_bytes}, {"all_tensor_bytes", plan.all_tensor_bytes}};
    json["refusal"] = nullptr;
    if (plan.refusal) json["refusal"] = refusal_text(model, *plan.refusal);
    // A path need not be UTF-8.
    std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace

void info(const InfoCommand& command) {
    LibraryReports reports(command.verbose);
    ModelFile model;
    open_model(command.model, reports, model);
    const ModelPlan plan = make_plan(model, command.plan);
    // Names are kept beside a model that was converted, and are no part of it.
    modelkit::ModelNames names;
    modelkit::load_names(command.model, names);
    if (command.json) {
        print_json(model, plan, names);
    } else if (command.dot) {
        std::fputs(graph_text(model, plan).c_str(), stdout);
    } else {
        print_text(model, plan, names);
    }
    if (plan.refusal) throw CommandError(refusal_text(model, *plan.refusal));
}

}  // namespace tool
