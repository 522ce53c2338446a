#include "bench_command.h"

#include <tarno/cpu.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <thread>
#include <vector>

#include "bench_limits.h"
#include "errors.h"
#include "gpu_bench.h"
#include "heap_calls.h"
#include "host_system.h"
#include "layer_timer.h"
#include "library_reports.h"
#include "metered_memory.h"
#include "model_file.h"
#include "net_run.h"
#include "numbers.h"
#include "progress.h"
#include "rates.h"
#include "sample_statistics.h"
#include "table_comparison.h"
#include "text_table.h"
#include "tuning_table.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

constexpr int most_runs_to_settle = 200;
constexpr double most_profiling = 10.0;

double seconds_since(Clock::time_point start) {
    return milliseconds_since(start) / 1e3;
}

struct LayerReport {
    int id = 0;
    std::string kind;
    std::string type;
    std::string operator_name;
    TensorSize size;
    int64_t multiply_adds = 0;
    double milliseconds = 0.0;
    double share = 0.0;
    double cumulative_share = 0.0;
};

struct KindReport {
    std::string kind;
    int count = 0;
    double milliseconds = 0.0;
    double share = 0.0;
};

struct Pacing {
    SampleStatistics lateness;
    int64_t dropped = 0;
};

struct BenchReport {
    double read_ms = 0.0;
    double build_ms = 0.0;
    double first_run_ms = 0.0;
    int warmup = 0;
    SampleStatistics steady;
    double elapsed_s = 0.0;
    std::optional<Pacing> pacing;
    size_t profiled_runs = 0;
    std::vector<LayerReport> layers;
    std::vector<KindReport> kinds;
    int64_t resident_bytes = 0;
    MemoryMeter light{0, 0};
    std::optional<MemoryMeter> full;
    std::optional<uint64_t> allocations;
    std::optional<uint64_t> frees;
};

class Bench {
public:
    /// `weights`: bytes in the net's operators.
    Bench(const BenchCommand& command, const ModelPlan& plan, int64_t weights,
          const RunnableNet& net, const std::vector<NetInput>& inputs, BenchReport& report)
        : command(command),
          plan(plan),
          weights(weights),
          net(net),
          inputs(inputs),
          report(report),
          pools(command.limits.memory, weights) {}

    void run();

private:
    void warm_up(MeteredPools& warming, bool light_mode, int at_least) const;
    double timed_run();
    void first_run();
    void steady_state();
    void profile();
    void count_heap_calls();

    const BenchCommand& command;
    const ModelPlan& plan;
    const int64_t weights;
    const RunnableNet& net;
    const std::vector<NetInput>& inputs;
    BenchReport& report;

    MeteredPools pools;
    LayerNames names;
};

double Bench::timed_run() {
    const RunnableNet::Settings timed = RunnableNet::on(pools);
    const Clock::time_point start = Clock::now();
    net.run(inputs, net.last_position(), timed, nullptr);
    return milliseconds_since(start);
}

void Bench::run() {
    first_run();
    warm_up(pools, true, command.warmup);
    report.warmup = pools.watched_runs - 1;
    report.light = pools.meter;
    steady_state();
    profile();
    count_heap_calls();
    report.resident_bytes = peak_resident_bytes();

    // All tensors at once may be far more than a run needs.
    if (plan.all_tensor_bytes > pools.meter.limit) return;
    MeteredPools without_light_mode(command.limits.memory, weights);
    try {
        warm_up(without_light_mode, false, 1);
        report.full = without_light_mode.meter;
    } catch (const CommandError&) {
        if (!without_light_mode.meter.exceeded) throw;
    }
}

/// Runs until the pools have stopped growing, which takes them several runs.
void Bench::warm_up(MeteredPools& warming, bool light_mode, int at_least) const {
    Progress progress("warm-up run", 0);
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < at_least || !warming.settled(); ++i) {
        if (seconds_since(start) >= most_warmup) break;
        if (i >= std::max(at_least, most_runs_to_settle)) break;
        net.run(inputs, net.last_position(), RunnableNet::on(warming, light_mode), nullptr);
        warming.note_run();
        progress.step(warming.watched_runs);
    }
}

void Bench::first_run() {
    const Clock::time_point start = Clock::now();
    net.run_checked(inputs, net.last_position(), RunnableNet::on(pools), &names);
    report.first_run_ms = milliseconds_since(start);
    pools.note_run();
}

void Bench::steady_state() {
    const bool neither = !command.runs && !command.duration;
    const int64_t runs = command.runs ? *command.runs : neither ? default_runs : INT64_MAX;
    const std::optional<double> duration = neither ? default_duration : command.duration;
    std::vector<double> times;
    std::vector<double> lateness;
    int64_t dropped = 0;
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(command.fps ? 1.0 / *command.fps : 0.0));
    Progress progress("run", runs == INT64_MAX ? 0 : runs);
    const Clock::time_point start = Clock::now();
    Clock::time_point due = start;
    for (int64_t i = 0; i < runs; ++i) {
        if (duration && i > 0 && seconds_since(start) >= *duration) break;
        if (command.fps) {
            // A camera does not wait: a frame whose successor is due already is lost.
            while (Clock::now() >= due + interval) {
                due += interval;
                ++dropped;
            }
            std::this_thread::sleep_until(due);
            lateness.push_back(milliseconds_since(due));
            due += interval;
        }
        times.push_back(timed_run());
        progress.step(i + 1);
    }
    report.elapsed_s = seconds_since(start);
    report.steady = statistics_of(times);
    if (command.fps) report.pacing = Pacing{statistics_of(lateness), dropped};
}

void Bench::profile() {
    const size_t runs = std::min(report.steady.count, most_profiled_runs);
    LayerTimer timer(names.rows.size(), runs);
    Progress progress("profiled run", static_cast<int64_t>(runs));
    const Clock::time_point start = Clock::now();
    while (report.profiled_runs < runs &&
           (report.profiled_runs == 0 || seconds_since(start) < most_profiling)) {
        const RunnableNet::Settings timed = RunnableNet::on(pools);
        timer.start_run();
        net.run(inputs, net.last_position(), timed, &timer);
        progress.step(static_cast<int64_t>(++report.profiled_runs));
    }

    double total = 0.0;
    for (size_t i = 0; i < names.rows.size(); ++i) {
        const LayerNames::Row& row = names.rows[i];
        const PlannedLayer& planned = plan.layers[*plan.find(row.id)];
        LayerReport layer;
        layer.id = row.id;
        layer.kind = planned.kind;
        layer.type = row.type;
        layer.operator_name = row.operator_name;
        layer.size = row.size;
        // A fused activation stands behind its layer under the same id.
        const bool fused = i > 0 && names.rows[i - 1].id == row.id;
        if (fused) layer.kind = "fused activation";
        layer.multiply_adds = fused ? 0 : planned.multiply_adds;
        std::sort(timer.times[i].begin(), timer.times[i].end());
        layer.milliseconds = percentile(timer.times[i], 50);
        total += layer.milliseconds;
        report.layers.push_back(layer);
    }
    double behind = 0.0;
    for (LayerReport& layer : report.layers) {
        behind += layer.milliseconds;
        layer.share = total > 0.0 ? layer.milliseconds / total : 0.0;
        layer.cumulative_share = total > 0.0 ? behind / total : 0.0;
        auto kind = std::find_if(report.kinds.begin(), report.kinds.end(),
                                 [&](const KindReport& each) { return each.kind == layer.kind; });
        if (kind == report.kinds.end()) {
            kind = report.kinds.insert(report.kinds.end(), KindReport{layer.kind, 0, 0.0, 0.0});
        }
        ++kind->count;
        kind->milliseconds += layer.milliseconds;
        kind->share += layer.share;
    }
    std::stable_sort(
        report.kinds.begin(), report.kinds.end(),
        [](const KindReport& a, const KindReport& b) { return a.milliseconds > b.milliseconds; });
}

void Bench::count_heap_calls() {
    // The bookkeeping of pools that have not settled would count.
    if (!heap_calls_are_counted() || !pools.settled()) return;
    HeapCalls calls;
    timed_run();
    calls.stop();
    report.allocations = calls.allocations;
    report.frees = calls.frees;
}

Json json_of(const MemoryMeter& bytes) {
    return Json{{"peak_bytes", bytes.peak}, {"held_bytes", bytes.held}};
}

Json json_of(const SampleStatistics& statistics) {
    return Json{{"count", statistics.count}, {"mean", statistics.mean}, {"min", statistics.min},
                {"p50", statistics.p50},     {"p90", statistics.p90},   {"p99", statistics.p99},
                {"max", statistics.max}};
}

void print_json(const BenchCommand& command, const ModelFile& model, const ModelPlan& plan,
                const BenchReport& report) {
    Json json;
    json["file"] = model.path;
    json["identity"] = model.loader.decodeModelID();
    json["inputs"] = Json::array();
    for (const ModelInput& input : plan.inputs) {
        json["inputs"].push_back(
            {{"index", input.index}, {"shape", {input.size->c, input.size->h, input.size->w}}});
    }
    json["multiply_adds"] = plan.multiply_adds;
    json["setup_ms"] = {{"read", report.read_ms}, {"build", report.build_ms}};
    json["first_run_ms"] = report.first_run_ms;
    json["warmup_runs"] = report.warmup;
    json["steady_ms"] = json_of(report.steady);
    json["steady_elapsed_s"] = report.elapsed_s;
    if (report.pacing) {
        json["paced"] = {{"fps", *command.fps},
                         {"lateness_ms", json_of(report.pacing->lateness)},
                         {"dropped_frames", report.pacing->dropped}};
    }
    json["profiled_runs"] = report.profiled_runs;
    json["layers"] = Json::array();
    for (const LayerReport& layer : report.layers) {
        json["layers"].push_back({{"id", layer.id},
                                  {"kind", layer.kind},
                                  {"type", layer.type},
                                  {"operator", layer.operator_name},
                                  {"shape", {layer.size.c, layer.size.h, layer.size.w}},
                                  {"multiply_adds", layer.multiply_adds},
                                  {"ms", layer.milliseconds},
                                  {"share", layer.share},
                                  {"cumulative_share", layer.cumulative_share}});
    }
    json["kinds"] = Json::array();
    for (const KindReport& kind : report.kinds) {
        json["kinds"].push_back({{"kind", kind.kind},
                                 {"count", kind.count},
                                 {"ms", kind.milliseconds},
                                 {"share", kind.share}});
    }
    json["memory"] = {{"peak_resident_bytes", report.resident_bytes},
                      {"weight_bytes", plan.weight_bytes},
                      {"pools_with_light_mode", json_of(report.light)},
                      {"pools_without_light_mode", nullptr}};
    if (report.full) json["memory"]["pools_without_light_mode"] = json_of(*report.full);
    json["heap_calls_per_run"] = nullptr;
    if (report.allocations) {
        json["heap_calls_per_run"] = {{"allocations", *report.allocations},
                                      {"frees", *report.frees}};
    }
    // A path need not be UTF-8.
    std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

std::string ms(double milliseconds) {
    return fixed(milliseconds, 3);
}

std::string percent(double share) {
    return fixed(share * 100.0, 1) + " %";
}

std::string statistics_text(const SampleStatistics& s) {
    return "p50 " + ms(s.p50) + "  p90 " + ms(s.p90) + "  p99 " + ms(s.p99) + "  max " + ms(s.max) +
           "  mean " + ms(s.mean) + "  min " + ms(s.min);
}

void print_text(const BenchCommand& command, const ModelFile& model, const ModelPlan& plan,
                const BenchReport& report) {
    std::string text;
    const auto line = [&](const std::string& name, const std::string& value) {
        text += name + std::string(name.size() < 18 ? 18 - name.size() : 1, ' ') + value + '\n';
    };
    line("model", model.path + ", " + model.loader.decodeModelID());
    for (const ModelInput& input : plan.inputs) {
        line("input " + std::to_string(input.index), size_text(*input.size) + ", random numbers");
    }
    line("work", count_text(plan.multiply_adds) + " multiply-adds a run");
    line("set-up", "read " + ms(report.read_ms) + " ms, build " + ms(report.build_ms) + " ms");
    line("first run", ms(report.first_run_ms) + " ms");
    line("steady state", std::to_string(report.steady.count) + " runs after " +
                             std::to_string(report.warmup) + " for warm-up, in ms:");
    line("", statistics_text(report.steady));
    if (report.pacing) {
        line("paced", "at " + fixed(*command.fps, 2) + " frames a second, " +
                          std::to_string(report.pacing->dropped) +
                          " frames dropped; start behind the due time, in ms:");
        line("", statistics_text(report.pacing->lateness));
    } else {
        line("throughput", runs_text(report.steady.mean) + " runs a second, " +
                               rate_text(plan.multiply_adds, report.steady.p50) +
                               " G multiply-adds a second");
    }
    line("peak memory", bytes_text(report.resident_bytes) + " resident in the whole process");
    line("", bytes_text(plan.weight_bytes) + " in weights");
    const auto pools_text = [](const MemoryMeter& bytes) {
        return bytes_text(bytes.peak) + " in tensors and scratch at once, the pools hold " +
               bytes_text(bytes.held);
    };
    line("with light mode", pools_text(report.light));
    line("without",
         report.full ? pools_text(*report.full) : "not measured, more than --memory-limit");
    line("heap calls a run", report.allocations
                                 ? std::to_string(*report.allocations) + " allocations, " +
                                       std::to_string(*report.frees) + " frees"
                             : heap_calls_are_counted() ? "not counted, the pools are still growing"
                                                        : "not counted in this build");

    text += "\nLayers in run order, median of " + std::to_string(report.profiled_runs) +
            " further runs\n\n";
    TextTable layers;
    layers.column("id", TextTable::right);
    layers.column("layer", TextTable::left);
    layers.column("operator", TextTable::left);
    layers.column("output", TextTable::right);
    layers.column("ms", TextTable::right);
    layers.column("share", TextTable::right);
    layers.column("sum", TextTable::right);
    layers.column("G madds/s", TextTable::right);
    double total = 0.0;
    for (const LayerReport& layer : report.layers) {
        total += layer.milliseconds;
        layers.row({std::to_string(layer.id), layer.type, layer.operator_name,
                    size_text(layer.size), ms(layer.milliseconds), percent(layer.share),
                    percent(layer.cumulative_share),
                    rate_text(layer.multiply_adds, layer.milliseconds)});
    }
    layers.rule();
    layers.row({"", "all", "", "", ms(total), percent(total > 0.0 ? 1.0 : 0.0), "",
                rate_text(plan.multiply_adds, total)});
    text += layers.text();

    text += "\nBy kind\n\n";
    TextTable kinds;
    kinds.column("kind", TextTable::left);
    kinds.column("layers", TextTable::right);
    kinds.column("ms", TextTable::right);
    kinds.column("share", TextTable::right);
    for (const KindReport& kind : report.kinds) {
        kinds.row(
            {kind.kind, std::to_string(kind.count), ms(kind.milliseconds), percent(kind.share)});
    }
    text += kinds.text();
    std::fputs(text.c_str(), stdout);
}

}  // namespace

void bench(const BenchCommand& command) {
    if (command.on_gpu) {
        bench_gpu(command);
        return;
    }
    LibraryReports reports(command.verbose);
    BenchReport report;
    ModelFile model;
    Clock::time_point start = Clock::now();
    open_model(command.model, reports, model);
    report.read_ms = milliseconds_since(start);

    const ModelPlan plan = make_plan(model, command.plan);
    require_runnable(model, plan, command.limits);
    const std::vector<NetInput> inputs = random_inputs(plan.inputs, input_seed);

    const std::vector<TarnoCPU::LayerInferenceConfig> configs =
        command.table.empty() ? std::vector<TarnoCPU::LayerInferenceConfig>()
                              : checked_configs(read_tuning_table(command.table), model, plan);
    if (command.compare_tables) {
        const RunnableNet by_rule(model, plan, reports);
        const RunnableNet by_table(model, plan, reports, &configs);
        const int runs = command.runs ? *command.runs : default_runs;
        MeteredPools pools(command.limits.memory, weight_bytes(plan, WeightsOf::RuleAndTable));
        print_comparison(compare_nets(by_rule, by_table, inputs, command.warmup, runs, pools),
                         command.json);
        return;
    }

    start = Clock::now();
    const RunnableNet net(model, plan, reports, command.table.empty() ? nullptr : &configs);
    report.build_ms = milliseconds_since(start);

    const int64_t weights =
        weight_bytes(plan, command.table.empty() ? WeightsOf::Rule : WeightsOf::Table);
    Bench(command, plan, weights, net, inputs, report).run();
    if (command.json) {
        print_json(command, model, plan, report);
    } else {
        print_text(command, model, plan, report);
    }
}

}  // namespace tool
