#include "gpu_bench.h"

#include <GL/glew.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "bench_limits.h"
#include "errors.h"
#include "gpu_net.h"
#include "heap_calls.h"
#include "layer_timer.h"
#include "library_reports.h"
#include "model_file.h"
#include "progress.h"
#include "rates.h"
#include "sample_statistics.h"
#include "text_table.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

constexpr double most_profiling = 5.0;
constexpr int calls_of_the_stand = 100000;

/// Milliseconds by operator, one sample a run.
using LayerTimes = std::vector<std::vector<double>>;

/// Times each operator on the GPU's own clock.
class TimerQueries : public tesk::NetObserver {
public:
    explicit TimerQueries(size_t operators) : times(operators), queries(operators) {
        glGenQueries(static_cast<GLsizei>(queries.size()), queries.data());
    }
    ~TimerQueries() override {
        glDeleteQueries(static_cast<GLsizei>(queries.size()), queries.data());
    }
    TimerQueries(const TimerQueries&) = delete;
    TimerQueries& operator=(const TimerQueries&) = delete;

    void beforeOperator(int index, int, tesk::Image&) override {
        glBeginQuery(GL_TIME_ELAPSED, queries[static_cast<size_t>(index)]);
    }
    void afterOperator(int, int, tesk::Image&) override { glEndQuery(GL_TIME_ELAPSED); }

    /// Waits for the run's results.
    void collect() {
        for (size_t i = 0; i < queries.size(); ++i) {
            GLuint64 nanoseconds = 0;
            glGetQueryObjectui64v(queries[i], GL_QUERY_RESULT, &nanoseconds);
            times[i].push_back(static_cast<double>(nanoseconds) * 1e-6);
        }
    }

    LayerTimes times;

private:
    std::vector<GLuint> queries;
};

/// Times each operator by waiting for it, for drivers whose queries see nothing of dispatches.
class WaitingClock : public tesk::NetObserver {
public:
    explicit WaitingClock(size_t operators) : times(operators) {}

    void beforeOperator(int, int, tesk::Image&) override {
        glFinish();
        start = Clock::now();
    }
    void afterOperator(int index, int, tesk::Image&) override {
        glFinish();
        times[static_cast<size_t>(index)].push_back(milliseconds_since(start));
    }
    void collect() {}

    LayerTimes times;

private:
    Clock::time_point start;
};

struct GpuLayerReport {
    int id = 0;
    std::string kind;
    TensorSize size;
    int64_t multiply_adds = 0;
    double milliseconds = 0.0;
};

struct GpuBenchReport {
    std::string device;
    double read_ms = 0.0;
    double context_ms = 0.0;
    double build_ms = 0.0;
    tesk::ComputeProgramManager::SetupCosts setup;
    double first_run_ms = 0.0;
    int warmup = 0;
    SampleStatistics upload;
    SampleStatistics compute;
    SampleStatistics read_back;
    SampleStatistics whole;
    std::vector<GpuLayerReport> layers;
    size_t profiled_runs = 0;
    bool by_queries = true;  ///< the layers' times
    int textures = 0;
    int64_t texture_bytes = 0;
    int64_t feature_bytes = 0;
    std::optional<uint64_t> allocations;
    double call_ns = 0.0;
};

class GpuBench {
public:
    GpuBench(const BenchCommand& command, const ModelPlan& plan, GpuSession& session, GpuNet& net,
             const std::vector<NetInput>& inputs, GpuBenchReport& report)
        : command(command),
          plan(plan),
          session(session),
          net(net),
          inputs(inputs),
          report(report) {}

    void run();

private:
    void one_run();
    void steady_state();
    void profile();
    template <typename Timer>
    void profile_with(Timer& timer);
    void count_heap_calls();
    void time_the_stand();

    const BenchCommand& command;
    const ModelPlan& plan;
    GpuSession& session;
    GpuNet& net;
    const std::vector<NetInput>& inputs;
    GpuBenchReport& report;

    std::vector<double> upload_times, compute_times, read_times, whole_times;
};

/// Each part ends when the GPU is done with it, so that none pays for the one before.
void GpuBench::one_run() {
    const Clock::time_point start = Clock::now();
    net.upload(inputs);
    glFinish();
    const double uploaded = milliseconds_since(start);
    net.forward();
    glFinish();
    const double computed = milliseconds_since(start);
    net.read(plan.layers.size() - 1);
    const double read = milliseconds_since(start);
    upload_times.push_back(uploaded);
    compute_times.push_back(computed - uploaded);
    read_times.push_back(read - computed);
    whole_times.push_back(read);
}

void GpuBench::run() {
    Clock::time_point start = Clock::now();
    net.upload(inputs);
    net.forward_checked();
    net.read(plan.layers.size() - 1);
    report.first_run_ms = milliseconds_since(start);

    start = Clock::now();
    {
        Progress progress("warm-up run", command.warmup);
        while (report.warmup < command.warmup && milliseconds_since(start) < 1e3 * most_warmup) {
            one_run();
            progress.step(++report.warmup);
        }
    }
    steady_state();
    profile();
    count_heap_calls();
    time_the_stand();
    report.textures = session.pool.textureCount();
    report.texture_bytes = session.pool.textureBytes();
    report.feature_bytes = plan.all_tensor_bytes;
}

void GpuBench::steady_state() {
    for (std::vector<double>* times : {&upload_times, &compute_times, &read_times, &whole_times}) {
        times->clear();
    }
    const bool neither = !command.runs && !command.duration;
    const int64_t runs = command.runs ? *command.runs : neither ? default_runs : INT64_MAX;
    const std::optional<double> duration = neither ? default_duration : command.duration;
    Progress progress("run", runs == INT64_MAX ? 0 : runs);
    const Clock::time_point start = Clock::now();
    for (int64_t i = 0; i < runs; ++i) {
        if (duration && i > 0 && milliseconds_since(start) >= 1e3 * *duration) break;
        one_run();
        progress.step(i + 1);
    }
    report.upload = statistics_of(upload_times);
    report.compute = statistics_of(compute_times);
    report.read_back = statistics_of(read_times);
    report.whole = statistics_of(whole_times);
}

void GpuBench::profile() {
    const size_t operators = static_cast<size_t>(net.net().operatorCount());
    TimerQueries queries(operators);
    profile_with(queries);
    double seen = 0.0;
    for (const GpuLayerReport& layer : report.layers) seen += layer.milliseconds;
    if (queries_saw_dispatches(seen, report.compute.p50)) return;
    WaitingClock clock(operators);
    report.by_queries = false;
    profile_with(clock);
}

template <typename Timer>
void GpuBench::profile_with(Timer& timer) {
    report.layers.clear();
    report.profiled_runs = 0;
    const size_t runs = std::min(report.whole.count, most_profiled_runs);
    Progress progress("profiled run", static_cast<int64_t>(runs));
    const Clock::time_point start = Clock::now();
    while (report.profiled_runs < runs &&
           (report.profiled_runs == 0 || milliseconds_since(start) < 1e3 * most_profiling)) {
        net.upload(inputs);
        net.forward(&timer);
        timer.collect();
        progress.step(static_cast<int64_t>(++report.profiled_runs));
    }
    for (size_t i = 0; i < timer.times.size(); ++i) {
        const PlannedLayer& planned =
            plan.layers[*plan.find(net.net().operatorLayer(static_cast<int>(i)))];
        std::sort(timer.times[i].begin(), timer.times[i].end());
        report.layers.push_back({planned.id, planned.kind, *planned.size, planned.multiply_adds,
                                 percentile(timer.times[i], 50)});
    }
}

void GpuBench::count_heap_calls() {
    if (!heap_calls_are_counted()) return;
    net.upload(inputs);
    HeapCalls calls;
    net.forward();
    calls.stop();
    report.allocations = calls.allocations;
}

/// What the way to an operator and its generator costs, without a shader.
void GpuBench::time_the_stand() {
    tesk::BenchmarkNet stand;
    stand.setupNet(&session.pool, &session.manager);
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < calls_of_the_stand; ++i) stand.forward();
    report.call_ns = milliseconds_since(start) * 1e6 / calls_of_the_stand;
}

std::string ms(double milliseconds) {
    return fixed(milliseconds, 3);
}

std::string statistics_text(const SampleStatistics& s) {
    return "p50 " + ms(s.p50) + "  p90 " + ms(s.p90) + "  p99 " + ms(s.p99) + "  max " + ms(s.max) +
           "  mean " + ms(s.mean) + "  min " + ms(s.min);
}

double layers_total(const GpuBenchReport& report) {
    double total = 0.0;
    for (const GpuLayerReport& layer : report.layers) total += layer.milliseconds;
    return total;
}

void print_text(const ModelFile& model, const ModelPlan& plan, const GpuBenchReport& report) {
    std::string text;
    const auto line = [&](const std::string& name, const std::string& value) {
        text += name + std::string(name.size() < 18 ? 18 - name.size() : 1, ' ') + value + '\n';
    };
    line("model", model.path + ", " + model.loader.decodeModelID());
    line("GPU", report.device);
    for (const ModelInput& input : plan.inputs) {
        line("input " + std::to_string(input.index), size_text(*input.size) + ", random numbers");
    }
    line("work", count_text(plan.multiply_adds) + " multiply-adds a run");
    line("set-up", "read " + ms(report.read_ms) + " ms, context " + ms(report.context_ms) +
                       " ms, net " + ms(report.build_ms) + " ms");
    line("", "of it packing " + ms(report.setup.packing) + " ms, source " +
                 ms(report.setup.source) + " ms, compiling " + ms(report.setup.compiling) + " ms");
    line("programs", std::to_string(report.setup.programsMade) + " made, " +
                         std::to_string(report.setup.programsShared) + " times shared");
    line("first run", ms(report.first_run_ms) + " ms");
    line("steady state", std::to_string(report.whole.count) + " runs after " +
                             std::to_string(report.warmup) + " for warm-up, in ms:");
    line("  upload", statistics_text(report.upload));
    line("  compute", statistics_text(report.compute));
    line("  read back", statistics_text(report.read_back));
    line("  whole", statistics_text(report.whole));
    line("textures", bytes_text(report.texture_bytes) + " in " + std::to_string(report.textures) +
                         " textures, all outputs together have " +
                         bytes_text(report.feature_bytes));
    line("heap calls", report.allocations
                           ? std::to_string(*report.allocations) +
                                 " allocations in the compute part of a run, the driver's included"
                           : "not counted in this build");
    line("call overhead", fixed(report.call_ns, 0) + " ns to an operator that does nothing");

    const double total = layers_total(report);
    text += std::string("\nLayers in run order ") +
            (report.by_queries ? "by timer queries"
                               : "by the clock, each waited for (the timer queries saw nothing)") +
            ", median of " + std::to_string(report.profiled_runs) + " further runs\n\n";
    TextTable layers;
    layers.column("id", TextTable::right);
    layers.column("kind", TextTable::left);
    layers.column("output", TextTable::right);
    layers.column("ms", TextTable::right);
    layers.column("share", TextTable::right);
    layers.column("G madds/s", TextTable::right);
    const auto row = [&](const std::string& id, const std::string& kind, const std::string& size,
                         double time, int64_t work) {
        layers.row({id, kind, size, ms(time),
                    fixed(total > 0.0 ? time / total * 100.0 : 0.0, 1) + " %",
                    rate_text(work, time, shortest_dispatch_ms)});
    };
    for (const GpuLayerReport& layer : report.layers) {
        row(std::to_string(layer.id), layer.kind, size_text(layer.size), layer.milliseconds,
            layer.multiply_adds);
    }
    layers.rule();
    row("", "all", "", total, plan.multiply_adds);
    text += layers.text();
    text += "\n" + ms(total) + " ms in the layers beside " + ms(report.compute.p50) +
            " ms of the whole compute part by the clock\n";
    std::fputs(text.c_str(), stdout);
}

Json json_of(const SampleStatistics& statistics) {
    return Json{{"count", statistics.count}, {"mean", statistics.mean}, {"min", statistics.min},
                {"p50", statistics.p50},     {"p90", statistics.p90},   {"p99", statistics.p99},
                {"max", statistics.max}};
}

void print_json(const ModelFile& model, const ModelPlan& plan, const GpuBenchReport& report) {
    Json json;
    json["file"] = model.path;
    json["identity"] = model.loader.decodeModelID();
    json["engine"] = "gpu";
    json["device"] = report.device;
    json["inputs"] = Json::array();
    for (const ModelInput& input : plan.inputs) {
        json["inputs"].push_back(
            {{"index", input.index}, {"shape", {input.size->c, input.size->h, input.size->w}}});
    }
    json["multiply_adds"] = plan.multiply_adds;
    json["setup_ms"] = {{"read", report.read_ms},        {"context", report.context_ms},
                        {"net", report.build_ms},        {"packing", report.setup.packing},
                        {"source", report.setup.source}, {"compiling", report.setup.compiling}};
    json["programs"] = {{"made", report.setup.programsMade},
                        {"shared", report.setup.programsShared}};
    json["first_run_ms"] = report.first_run_ms;
    json["warmup_runs"] = report.warmup;
    json["upload_ms"] = json_of(report.upload);
    json["compute_ms"] = json_of(report.compute);
    json["read_back_ms"] = json_of(report.read_back);
    json["steady_ms"] = json_of(report.whole);
    json["profiled_runs"] = report.profiled_runs;
    json["layer_times_by"] = report.by_queries ? "timer queries" : "clock";
    json["layers"] = Json::array();
    const double total = layers_total(report);
    for (const GpuLayerReport& layer : report.layers) {
        json["layers"].push_back({{"id", layer.id},
                                  {"kind", layer.kind},
                                  {"shape", {layer.size.c, layer.size.h, layer.size.w}},
                                  {"multiply_adds", layer.multiply_adds},
                                  {"ms", layer.milliseconds},
                                  {"share", total > 0.0 ? layer.milliseconds / total : 0.0}});
    }
    json["textures"] = {{"count", report.textures},
                        {"bytes", report.texture_bytes},
                        {"all_outputs_bytes", report.feature_bytes}};
    json["heap_calls_per_run"] = nullptr;
    if (report.allocations) json["heap_calls_per_run"] = {{"allocations", *report.allocations}};
    json["call_overhead_ns"] = report.call_ns;
    // A path need not be UTF-8.
    std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace

void bench_gpu(const BenchCommand& command) {
    LibraryReports reports(command.verbose);
    GpuBenchReport report;
    ModelFile model;
    Clock::time_point start = Clock::now();
    open_model(command.model, reports, model);
    report.read_ms = milliseconds_since(start);

    const ModelPlan plan = make_gpu_plan(model, command.plan, command.gpu);
    require_runnable(model, plan, command.limits);
    const std::vector<NetInput> inputs = random_inputs(plan.inputs, input_seed);

    start = Clock::now();
    GpuSession session(command.gpu, reports);
    report.context_ms = milliseconds_since(start);
    report.device = session.device();
    start = Clock::now();
    GpuNet net(model, plan, session, reports);
    glFinish();
    report.build_ms = milliseconds_since(start);
    report.setup = session.manager.setupCosts;

    GpuBench(command, plan, session, net, inputs, report).run();
    if (command.json) {
        print_json(model, plan, report);
    } else {
        print_text(model, plan, report);
    }
}

}  // namespace tool
