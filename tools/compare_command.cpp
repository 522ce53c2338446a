#include "compare_command.h"

#include <modelkit/model_writer.h>
#include <unistd.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "difference_bound.h"
#include "errors.h"
#include "gpu_net.h"
#include "layer_judgement.h"
#include "library_reports.h"
#include "model_file.h"
#include "net_run.h"
#include "progress.h"
#include "text_table.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

/// A layer that is not compared, or not judged, and why.
struct Remark {
    unsigned short id;
    unsigned short type;
    std::string text;
};

struct LayerDifference {
    size_t position = 0;
    TensorSize size;
    double max_absolute = 0.0;
    double mean_absolute = 0.0;
    double max_relative = 0.0;  ///< to the larger of the two magnitudes
    double mean_relative = 0.0;
    bool judged = false;
    Judgement judgement;  ///< of the elements that have a bound

    bool beyond() const { return judged && judgement.beyond(); }
};

struct Comparison {
    std::string device;
    std::vector<Remark> left_out;
    std::vector<Remark> unlike;
    std::vector<LayerDifference> layers;
};

/// A file for the length of its life.
class TemporaryModel {
public:
    TemporaryModel() {
        const char* folder = std::getenv("TMPDIR");
        path = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") +
               "/tarno_compare_XXXXXX";
        const int descriptor = mkstemp(path.data());
        if (descriptor < 0)
            throw CommandError(path + ": expected room for a temporary file, found none");
        close(descriptor);
    }
    ~TemporaryModel() { std::remove(path.c_str()); }
    TemporaryModel(const TemporaryModel&) = delete;
    TemporaryModel& operator=(const TemporaryModel&) = delete;

    std::string path;
};

/// Layers that one engine lacks go, and those that read them; the remarks say which and why.
std::vector<unsigned short> comparable_layers(const ModelPlan& cpu, const ModelPlan& gpu,
                                              std::vector<Remark>& left_out) {
    std::vector<unsigned short> kept;
    for (size_t i = 0; i < cpu.layers.size() && i < gpu.layers.size(); ++i) {
        const PlannedLayer& layer = cpu.layers[i];
        if (layer.size && gpu.layers[i].size) {
            kept.push_back(layer.id);
            continue;
        }
        std::string text = "reads a layer that is left out";
        for (const ModelPlan* plan : {&cpu, &gpu}) {
            for (const PlanRefusal& refusal : plan->refusals) {
                if (refusal.names_layer && refusal.id == layer.id) text = refusal.text;
            }
        }
        left_out.push_back({layer.id, layer.type, text});
    }
    return kept;
}

/// The model of some of the layers of another.
void write_part(const ModelFile& model, const std::vector<unsigned short>& ids,
                const std::string& path) {
    modelkit::ModelWriter writer(modelkit::header_of(model.loader));
    const auto records = model.loader.getLayersInfo();
    for (const unsigned short id : ids) {
        const modelkit::Status added = writer.add(*records.at(id));
        if (!added.ok()) throw CommandError(model.path + ": " + added.message());
    }
    const modelkit::Status saved = writer.save(path);
    if (!saved.ok()) throw CommandError(path + ": " + saved.message());
}

/// Keeps the output of every layer of a run on the CPU engine. A fused activation comes second and
/// stands for its layer.
class CpuOutputs : public TarnoCPU::Statistician {
public:
    void layer_stats(const TarnoCPU::Layer* layer, const TarnoCPU::Mat&, TarnoCPU::Mat& top, double,
                     double) override {
        if (top.empty() || failure) return;
        try {
            TensorSize size;
            values[layer->id] = values_of(top, size);
            sizes[layer->id] = size;
        } catch (...) {
            failure = std::current_exception();
        }
    }

    std::map<int, std::vector<float>> values;
    std::map<int, TensorSize> sizes;
    std::exception_ptr failure;
};

class Comparer : public tesk::NetObserver {
public:
    Comparer(const CompareCommand& command, const ModelFile& model, const ModelPlan& plan,
             CpuOutputs& cpu, const GpuNet& net, Comparison& comparison)
        : command(command),
          plan(plan),
          cpu(cpu),
          net(net),
          comparison(comparison),
          records(model.loader.getLayersInfo()),
          progress("layer", static_cast<int64_t>(plan.layers.size())) {
        for (const PlannedLayer& layer : plan.layers) {
            for (const unsigned short bottom : layer.bottoms) ++readers[bottom];
        }
    }

    void compare_inputs() {
        for (size_t i = 0; i < plan.layers.size(); ++i) {
            if (plan.layers[i].bottoms.empty()) compare_layer(i);
        }
    }

    void afterOperator(int, int layer, tesk::Image&) override {
        // The library knows nothing of exceptions, so they wait here until it is done.
        if (failure) return;
        try {
            compare_layer(*plan.find(layer));
        } catch (...) {
            failure = std::current_exception();
        }
    }

    void finish() const {
        if (failure) std::rethrow_exception(failure);
    }

private:
    void compare_layer(size_t position);
    void judge_layer(const PlannedLayer& layer, const EnginePair& pair,
                     const std::vector<float>& bound, LayerDifference& difference);
    void let_go(const PlannedLayer& layer);

    const CompareCommand& command;
    const ModelPlan& plan;
    CpuOutputs& cpu;
    const GpuNet& net;
    Comparison& comparison;
    std::map<unsigned short, ZQLayerInfo*> records;
    Progress progress;
    std::map<unsigned short, EnginePair> pairs;
    std::set<unsigned short> unknown;  ///< layers of two sizes, which are in no pair
    std::map<unsigned short, int> readers;
    std::exception_ptr failure;
};

void measure(const EnginePair& pair, LayerDifference& difference) {
    double absolute = 0.0;
    double relative = 0.0;
    for (size_t i = 0; i < pair.cpu.size(); ++i) {
        const double d = element_difference(pair.cpu[i], pair.gpu[i]);
        const double larger = std::max(std::fabs(static_cast<double>(pair.cpu[i])),
                                       std::fabs(static_cast<double>(pair.gpu[i])));
        const double r = d == 0.0 ? 0.0 : std::isfinite(d) ? d / larger : d;
        absolute += d;
        relative += r;
        difference.max_absolute = std::max(difference.max_absolute, d);
        difference.max_relative = std::max(difference.max_relative, r);
    }
    const double count = static_cast<double>(std::max<size_t>(pair.cpu.size(), 1));
    difference.mean_absolute = absolute / count;
    difference.mean_relative = relative / count;
}

std::string number(double value) {
    if (std::isinf(value)) return value < 0.0 ? "-inf" : "inf";
    if (std::isnan(value)) return "nan";
    char text[32];
    std::snprintf(text, sizeof(text), "%.3g", value);
    return text;
}

std::string place_text(const TensorSize& size, size_t index) {
    const int64_t i = static_cast<int64_t>(index);
    return "channel " + std::to_string(i / (size.h * size.w)) + ", row " +
           std::to_string(i / size.w % size.h) + ", column " + std::to_string(i % size.w);
}

/// A layer with elements that have no bound is not judged, unless one of the others is beyond its
/// own: that one tells enough.
void Comparer::judge_layer(const PlannedLayer& layer, const EnginePair& pair,
                           const std::vector<float>& bound, LayerDifference& difference) {
    difference.judgement = judge(pair, bound);
    const Judgement& judgement = difference.judgement;
    difference.judged = judgement.unbounded == 0 || judgement.beyond();
    if (difference.judged) return;
    const size_t first = judgement.first_unbounded;
    comparison.unlike.push_back(
        {layer.id, layer.type,
         std::to_string(judgement.unbounded) + " of " + std::to_string(bound.size()) +
             " elements may leave the range of halves, or are no numbers, the first at " +
             place_text(pair.size, first) + ": " + number(static_cast<double>(pair.cpu[first])) +
             " on the CPU engine, " + number(static_cast<double>(pair.gpu[first])) +
             " on the GPU engine"});
}

void Comparer::compare_layer(size_t position) {
    progress.step(static_cast<int64_t>(position) + 1);
    const PlannedLayer& layer = plan.layers[position];
    const ZQLayerInfo& record = *records.at(layer.id);
    FloatMap map = net.read(position);
    const std::optional<std::string> unlike =
        unlike_reason(record, cpu.sizes.at(layer.id), *layer.size);
    EnginePair pair;
    pair.size = *layer.size;
    pair.cpu = std::move(cpu.values.at(layer.id));
    pair.gpu = std::move(map.values);
    if (unlike) comparison.unlike.push_back({layer.id, layer.type, *unlike});
    bool reads_unknown = false;
    for (const unsigned short bottom : layer.bottoms) {
        reads_unknown = reads_unknown || unknown.count(bottom) != 0;
    }
    if (pair.cpu.size() != pair.gpu.size()) {
        unknown.insert(layer.id);
        return;
    }
    if (reads_unknown && !unlike) {
        comparison.unlike.push_back(
            {layer.id, layer.type, "reads a layer of two sizes, which has no differences"});
    }
    LayerDifference difference;
    difference.position = position;
    difference.size = pair.size;
    measure(pair, difference);
    if (layer.bottoms.empty()) {
        judge_layer(layer, pair, explained_input_difference(pair), difference);
    } else if (!unlike && !reads_unknown) {
        std::vector<const EnginePair*> bottoms;
        for (const unsigned short bottom : layer.bottoms) bottoms.push_back(&pairs.at(bottom));
        judge_layer(layer, pair, explained_difference(record, bottoms, pair, command.gpu),
                    difference);
    }
    comparison.layers.push_back(difference);
    pairs[layer.id] = std::move(pair);
    let_go(layer);
}

void Comparer::let_go(const PlannedLayer& layer) {
    for (const unsigned short bottom : layer.bottoms) {
        if (--readers[bottom] == 0) pairs.erase(bottom);
    }
}

const LayerDifference* first_beyond(const Comparison& comparison) {
    for (const LayerDifference& layer : comparison.layers) {
        if (layer.beyond()) return &layer;
    }
    return nullptr;
}

std::string beyond_text(const LayerDifference& layer) {
    return "expected engines that differ by at most " + number(layer.judgement.worst_bound) +
           ", as half storage explains, found " + number(layer.judgement.worst_difference) +
           " at " + place_text(layer.size, layer.judgement.worst);
}

void print_text(const CompareCommand& command, const ModelPlan& plan,
                const Comparison& comparison) {
    std::string text;
    const auto line = [&](const std::string& name, const std::string& value) {
        text += name + std::string(name.size() < 10 ? 10 - name.size() : 1, ' ') + value + '\n';
    };
    line("model", command.model);
    line("GPU", comparison.device);
    text +=
        "\n|cpu - gpu| of each layer's output; the last column is how near the nearest element "
        "comes\n"
        "to what half storage explains\n\n";
    TextTable table;
    table.column("id", TextTable::right);
    table.column("kind", TextTable::left);
    table.column("output", TextTable::right);
    table.column("max", TextTable::right);
    table.column("mean", TextTable::right);
    table.column("max rel.", TextTable::right);
    table.column("mean rel.", TextTable::right);
    table.column("of bound", TextTable::right);
    for (const LayerDifference& each : comparison.layers) {
        const PlannedLayer& layer = plan.layers[each.position];
        table.row({std::to_string(layer.id), layer.kind, size_text(each.size),
                   number(each.max_absolute), number(each.mean_absolute), number(each.max_relative),
                   number(each.mean_relative),
                   each.judged ? fixed(each.judgement.share_of_bound * 100.0, 0) + " %" : "-"});
    }
    text += table.text() + "\n";
    const auto remarks = [&](const char* title, const std::vector<Remark>& list) {
        for (const Remark& remark : list) {
            text +=
                std::string(title) + layer_text(remark.id, remark.type) + ": " + remark.text + "\n";
        }
    };
    remarks("left out: ", comparison.left_out);
    remarks("not judged: ", comparison.unlike);
    size_t judged = 0;
    for (const LayerDifference& each : comparison.layers) judged += each.judged ? 1 : 0;
    const LayerDifference& last = comparison.layers.back();
    if (first_beyond(comparison) == nullptr) {
        text += std::to_string(judged) +
                " layers differ by no more than half storage explains; the last by " +
                number(last.max_absolute) + " at most, " + number(last.mean_absolute) +
                " on average\n";
    }
    std::fputs(text.c_str(), stdout);
}

Json finite(double value) {
    return std::isfinite(value) ? Json(value) : Json(nullptr);
}

void print_json(const CompareCommand& command, const ModelPlan& plan,
                const Comparison& comparison) {
    Json json;
    json["file"] = command.model;
    json["device"] = comparison.device;
    json["layers"] = Json::array();
    for (const LayerDifference& each : comparison.layers) {
        const PlannedLayer& layer = plan.layers[each.position];
        json["layers"].push_back({{"id", layer.id},
                                  {"kind", layer.kind},
                                  {"shape", {each.size.c, each.size.h, each.size.w}},
                                  {"max_absolute", finite(each.max_absolute)},
                                  {"mean_absolute", finite(each.mean_absolute)},
                                  {"max_relative", finite(each.max_relative)},
                                  {"mean_relative", finite(each.mean_relative)},
                                  {"judged", each.judged},
                                  {"share_of_bound", finite(each.judgement.share_of_bound)}});
    }
    const auto list = [](const std::vector<Remark>& remarks) {
        Json rows = Json::array();
        for (const Remark& remark : remarks) {
            rows.push_back({{"id", remark.id},
                            {"kind", zq_layer_type_name(remark.type)},
                            {"reason", remark.text}});
        }
        return rows;
    };
    json["left_out"] = list(comparison.left_out);
    json["not_judged"] = list(comparison.unlike);
    const LayerDifference* beyond = first_beyond(comparison);
    json["first_beyond"] =
        beyond == nullptr ? Json(nullptr) : Json(plan.layers[beyond->position].id);
    // A path need not be UTF-8.
    std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void require_memory(const CompareCommand& command, const ModelPlan& cpu, const ModelPlan& gpu) {
    // All outputs of the CPU run, and of the GPU run both engines' that are still to be read.
    const double bytes =
        4.0 * static_cast<double>(cpu.all_tensor_bytes) + static_cast<double>(gpu.all_tensor_bytes);
    if (bytes > static_cast<double>(command.limits.memory)) {
        throw CommandError(command.model + ": expected at most " +
                           bytes_text(command.limits.memory) +
                           " of memory for the outputs of all layers, found a need of " +
                           bytes_text(static_cast<int64_t>(bytes)) + " (see --memory-limit)");
    }
}

}  // namespace

void compare(const CompareCommand& command) {
    LibraryReports reports(command.verbose);
    Comparison comparison;
    auto model = std::make_unique<ModelFile>();
    open_model(command.model, reports, *model);

    // Sizes that .npy files bring along would suit the CPU engine alone.
    PlanOptions options = command.plan;
    ModelPlan cpu_plan = make_plan(*model, options);
    ModelPlan gpu_plan = make_gpu_plan(*model, options, command.gpu);
    for (const ModelPlan* plan : {&cpu_plan, &gpu_plan}) {
        if (plan->refusal && !plan->refusal->names_layer) {
            throw CommandError(refusal_text(*model, *plan->refusal));
        }
    }
    std::unique_ptr<TemporaryModel> part;
    if (cpu_plan.refusal || gpu_plan.refusal) {
        const PlanRefusal refusal = cpu_plan.refusal ? *cpu_plan.refusal : *gpu_plan.refusal;
        const std::vector<unsigned short> ids =
            comparable_layers(cpu_plan, gpu_plan, comparison.left_out);
        size_t inputs = 0;
        const auto records = model->loader.getLayersInfo();
        for (const unsigned short id : ids) inputs += records.at(id)->bottom_count == 0 ? 1 : 0;
        if (inputs != cpu_plan.inputs.size() || ids.size() == inputs) {
            throw CommandError(refusal_text(*model, refusal));
        }
        part = std::make_unique<TemporaryModel>();
        write_part(*model, ids, part->path);
        auto reduced = std::make_unique<ModelFile>();
        open_model(part->path, reports, *reduced);
        model = std::move(reduced);
        model->path = command.model;  // the user knows nothing of the part's file
        cpu_plan = make_plan(*model, options);
        gpu_plan = make_gpu_plan(*model, options, command.gpu);
    }
    require_runnable(*model, cpu_plan, command.limits);
    require_runnable(*model, gpu_plan, command.limits);
    require_memory(command, cpu_plan, gpu_plan);

    const InputFiles files(*model, gpu_plan.inputs, command.inputs);
    options.input_sizes = files.sizes();
    const ModelPlan sized = make_gpu_plan(*model, options, command.gpu);
    require_runnable(*model, sized, command.limits);
    files.check(command.rules);
    const std::vector<NetInput> inputs = files.load(command.rules, cpu_plan.inputs);

    // A context that is not to be had should not cost a run.
    GpuSession session(command.gpu, reports);
    comparison.device = session.device();
    GpuNet gpu_net(*model, gpu_plan, session, reports);

    CpuOutputs outputs;
    {
        const RunnableNet cpu_net(*model, cpu_plan, reports);
        RunnableNet::Settings settings;
        settings.light_mode = true;
        cpu_net.run_checked(inputs, cpu_net.last_position(), settings, &outputs);
        if (outputs.failure) std::rethrow_exception(outputs.failure);
    }
    gpu_net.upload(inputs);
    {
        Comparer comparer(command, *model, gpu_plan, outputs, gpu_net, comparison);
        comparer.compare_inputs();
        gpu_net.forward_checked(&comparer);
        comparer.finish();
    }
    if (command.json) {
        print_json(command, gpu_plan, comparison);
    } else {
        print_text(command, gpu_plan, comparison);
    }
    if (const LayerDifference* beyond = first_beyond(comparison)) {
        std::fflush(stdout);
        const PlannedLayer& layer = gpu_plan.layers[beyond->position];
        throw CommandError(layer_fault(command.model, layer.id, layer.type, beyond_text(*beyond)));
    }
}

}  // namespace tool
