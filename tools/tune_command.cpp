#include "tune_command.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

#include "errors.h"
#include "files.h"
#include "layout_path.h"
#include "library_reports.h"
#include "machine.h"
#include "metered_memory.h"
#include "net_run.h"
#include "operator_trial.h"
#include "output_difference.h"
#include "progress.h"
#include "sample_statistics.h"
#include "table_comparison.h"
#include "table_slots.h"
#include "tuning_memory.h"
#include "tuning_report.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int input_seed = 1;
constexpr int comparison_runs = 30;

/// How far two right operators can be apart, as a part of the largest number of the layer's output.
double relative_difference(const std::vector<double>& bounds, const TarnoCPU::Mat& top) {
    double bound = 0.0, magnitude = 0.0;
    for (size_t i = 0; i < bounds.size(); ++i) {
        const double value = std::fabs(static_cast<double>(top.ptr<float>()[i]));
        if (!std::isfinite(value) || !std::isfinite(bounds[i])) continue;
        bound = std::max(bound, bounds[i]);
        magnitude = std::max(magnitude, value);
    }
    return magnitude > 0.0 ? 2.0 * bound / magnitude : 0.0;
}

/// `explained` grows by what the layer's roundings can add to the difference of two nets.
Candidates try_all(const TableSlot& slot, const LayerTask& task, const TrialMemory& memory,
                   double& explained) {
    Candidates candidates;
    const std::vector<double> bounds = error_bounds(slot, task, memory);
    explained += relative_difference(bounds, task.top);
    size_t count = 0;
    const TarnoCPU::OperatorInfo* list = TarnoCPU::operator_list(&count);
    for (const Packing packing : {Packing::planes, Packing::fours}) {
        if (packing == Packing::fours && slot.in.c % 4 != 0) continue;
        for (size_t i = 0; i < count; ++i) {
            if (!misfit(list[i], slot, packing).empty()) continue;
            const Trial trial = try_operator(list[i], task, packing, bounds, memory);
            (trial.rejection.empty() ? candidates.right : candidates.rejected).push_back(trial);
        }
    }
    return candidates;
}

/// The ways through one layer: for each pair of layouts the fastest operator.
struct Ways {
    PathLayer path;
    std::vector<const Trial*> trials;  ///< by way; null for layers without an operator
};

Ways ways_of(const TarnoCPU::Layer& layer, const TableSlot& slot, const Candidates& candidates) {
    Ways ways;
    const bool is_input = slot.layer == "Input";
    if (!is_input) ways.path.bottoms = layer.bottoms;
    ways.path.top = layer.tops[0];
    if (!slot.takes_operator) {
        for (const Packing packing : {Packing::planes, Packing::fours}) {
            if (!misfit_without_operator(slot, packing).empty()) continue;
            ways.path.ways.push_back({packing, packing, 0.0});
            ways.trials.push_back(nullptr);
        }
        return ways;
    }
    for (const Trial& trial : candidates.right) {
        size_t same = 0;
        while (same < ways.path.ways.size() &&
               (ways.path.ways[same].in != trial.in || ways.path.ways[same].out != trial.out)) {
            ++same;
        }
        if (same == ways.path.ways.size()) {
            ways.path.ways.push_back({trial.in, trial.out, trial.milliseconds});
            ways.trials.push_back(&trial);
        } else if (trial.milliseconds < ways.path.ways[same].cost) {
            ways.path.ways[same].cost = trial.milliseconds;
            ways.trials[same] = &trial;
        }
    }
    return ways;
}

/// Medians of the whole net by the default rule and by the table, run by run in turns.
struct Comparison {
    double default_ms = 0.0;
    double table_ms = 0.0;
    OutputDifference outputs;
};

Comparison compare(RunnableNet& by_rule, RunnableNet& by_table, const std::vector<NetInput>& inputs,
                   double explained, const RunnableNet::Settings& settings) {
    by_rule.reset_state();
    by_table.reset_state();
    const RunnableNet* const nets[2] = {&by_rule, &by_table};
    std::vector<double> times[2];
    Comparison comparison;
    const auto run = [&](int k) {
        return nets[k]->run(inputs, nets[k]->last_position(), settings, nullptr);
    };
    {
        TarnoCPU::Mat outputs[2];
        for (int k = 0; k < 2; ++k) outputs[k] = run(k);
        TensorSize size;
        const std::vector<float> a = values_of(outputs[0], size);
        const std::vector<float> b = values_of(outputs[1], size);
        comparison.outputs = output_difference(a, b, explained);
    }
    Progress progress("comparing run", comparison_runs);
    for (int i = 0; i < comparison_runs; ++i) {
        for (int k = 0; k < 2; ++k) {
            const Clock::time_point start = Clock::now();
            run(k);
            times[k].push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
        progress.step(i + 1);
    }
    comparison.default_ms = statistics_of(times[0]).p50;
    comparison.table_ms = statistics_of(times[1]).p50;
    return comparison;
}

/// On pools, as a host runs them. They may hold far more than is alive; where that is beyond the
/// limit, both nets go to the heap.
Comparison compare_within(int64_t memory_limit, int64_t weights, RunnableNet& by_rule,
                          RunnableNet& by_table, const std::vector<NetInput>& inputs,
                          double explained) {
    {
        MeteredPools pools(memory_limit, weights);
        try {
            settle({&by_rule, &by_table}, inputs, 2, pools);
            return compare(by_rule, by_table, inputs, explained, RunnableNet::on(pools));
        } catch (const CommandError&) {
            if (!pools.meter.exceeded) throw;
        }
    }
    MeteredHeap heap(memory_limit, weights);
    return compare(by_rule, by_table, inputs, explained, RunnableNet::on(heap));
}

std::string ms(double milliseconds) {
    return fixed(milliseconds, 3);
}

}  // namespace

void tune(const TuneCommand& command) {
    OutputFiles files;
    files.keep(command.model);
    files.expect_apart(command.output);
    LibraryReports reports(command.verbose);
    ModelFile model;
    open_model(command.model, reports, model);
    const ModelPlan plan = make_plan(model, command.plan);
    require_runnable(model, plan, command.limits);
    const std::vector<TableSlot> slots = table_slots(model, plan);
    require_tunable(model, plan, slots, command.limits);
    const std::vector<NetInput> inputs = random_inputs(plan.inputs, input_seed);
    RunnableNet by_rule(model, plan, reports);
    by_rule.run_checked(inputs, by_rule.last_position(), {}, nullptr);

    std::vector<std::pair<int, TarnoCPU::Mat>> tensors;
    for (const NetInput& input : inputs) tensors.emplace_back(input.index, input.tensor);
    std::vector<LayerTask> tasks = record_tasks(model, by_rule.net(), tensors);

    // What rounding explains of a difference between the outputs of two nets of right operators, as
    // a part of the largest number: the sum of what each layer can add. It takes for granted that a
    // layer hands a difference on as a part no larger than it came. That is not so for every net,
    // but the parts are those of the worst case, gamma(n) times the sizes of the products, while n
    // roundings up and down come to about the root of n of them: there is room for it.
    double explained = 0.0;
    std::vector<Candidates> candidates(slots.size());
    {
        const TuningMemory memory = tuning_memory(plan, slots);
        Progress progress("layer", static_cast<int64_t>(slots.size()));
        for (size_t i = 0; i < slots.size(); ++i) {
            if (slots[i].layer == "LSTM") {
                // The only operator, whose state a trial would disturb.
                Trial trial;
                trial.info = TarnoCPU::find_operator(tasks[i].default_creator);
                candidates[i].right.push_back(trial);
            } else if (slots[i].takes_operator) {
                const TrialMemory trial = {command.limits.memory, memory.kept + memory.trial[i]};
                candidates[i] = try_all(slots[i], tasks[i], trial, explained);
            }
            progress.step(static_cast<int64_t>(i) + 1);
        }
    }

    // What the operators were tried on is not needed any more.
    tensors.clear();
    std::vector<TarnoCPU::OperatorCreator> by_default;
    for (const LayerTask& task : tasks) by_default.push_back(task.default_creator);
    tasks.clear();

    std::vector<Ways> ways;
    std::vector<PathLayer> layers;
    for (size_t i = 0; i < slots.size(); ++i) {
        ways.push_back(ways_of(*by_rule.net().layers[i], slots[i], candidates[i]));
        if (ways.back().path.ways.empty()) {
            throw CommandError(layer_fault(model.path, slots[i].id, slots[i].type,
                                           "expected an operator that computes it, found none"));
        }
        layers.push_back(ways.back().path);
    }
    const std::vector<size_t> path = cheapest_path(layers, by_rule.net().blobs.size());

    std::vector<TarnoCPU::LayerInferenceConfig> configs;
    std::vector<const Trial*> chosen;
    for (size_t i = 0; i < slots.size(); ++i) {
        const Trial* trial = path.empty() ? nullptr : ways[i].trials[path[i]];
        chosen.push_back(trial);
        configs.push_back({path.empty()       ? by_default[i]
                           : trial != nullptr ? trial->info->creator
                                              : nullptr,
                           0, 0});
    }
    const int64_t weights = weight_bytes(plan, WeightsOf::RuleAndTable);
    auto tuned = std::make_unique<RunnableNet>(model, plan, reports, &configs);
    {
        MeteredHeap heap(command.limits.memory, weights);
        tuned->run_checked(inputs, tuned->last_position(), RunnableNet::on(heap), nullptr);
    }
    const Comparison comparison =
        compare_within(command.limits.memory, weights, by_rule, *tuned, inputs, explained);
    bool another = false;
    for (size_t i = 0; i < slots.size(); ++i) another |= configs[i].op_creator != by_default[i];
    const bool faster =
        another && comparison.outputs.same && comparison.table_ms < comparison.default_ms;
    if (another && !faster) {
        // Layer by layer it looked better than it is: then the table is the default rule's own.
        for (size_t i = 0; i < slots.size(); ++i) configs[i].op_creator = by_default[i];
        tuned = std::make_unique<RunnableNet>(model, plan, reports, &configs);
    }

    TarnoCPU::ConfigPrinter printer;
    printer.add_header();
    MeteredHeap heap(command.limits.memory, weights);
    tuned->run_checked(inputs, tuned->last_position(), RunnableNet::on(heap), &printer);
    printer.add_tail();
    const std::string machine = machine_name();
    std::string text =
        "// Measured on " + machine + " for " + model.loader.decodeModelID() + " at ";
    for (const ModelInput& input : plan.inputs) {
        text += (input.index == plan.inputs[0].index ? "" : ", ") + size_text(*input.size);
    }
    text += ": " + ms(comparison.default_ms) + " ms by the default rule, " +
            ms(faster ? comparison.table_ms : comparison.default_ms) + " ms by this table.\n" +
            printer.get_config_string();

    std::vector<TunedRow> rows;
    for (size_t i = 0; i < slots.size(); ++i) {
        rows.push_back({&slots[i], by_rule.net().layers[i]->type,
                        by_default[i] != nullptr ? TarnoCPU::find_operator(by_default[i]) : nullptr,
                        &candidates[i], chosen[i]});
    }
    std::string report = "machine           " + machine + "\n\n" + report_of(rows);
    report += "whole net         " + ms(comparison.default_ms) + " ms by the default rule, " +
              ms(comparison.table_ms) + " ms by the chosen operators, medians of " +
              std::to_string(comparison_runs) +
              " runs in turns: " + fixed(comparison.default_ms / comparison.table_ms, 2) +
              " times as fast\n" + "outputs           differ by " +
              fixed(comparison.outputs.largest, 9) + " at the most, rounding explains " +
              fixed(explained * comparison.outputs.magnitude, 9) + "\n";
    if (!comparison.outputs.same) {
        report += "the outputs are not the same: the table is that of the default rule\n";
    } else if (!another) {
        report += "no operator beats those of the default rule: the table is that of the rule\n";
    } else if (!faster) {
        report += "the default rule is faster as a whole: the table is that of the rule\n";
    }

    if (command.output.empty()) {
        std::fputs(report.c_str(), stderr);
        std::fputs(text.c_str(), stdout);
        return;
    }
    files.write(command.output, text);
    std::fputs((report + "wrote             " + command.output + "\n").c_str(), stdout);
    files.commit();
}

}  // namespace tool
