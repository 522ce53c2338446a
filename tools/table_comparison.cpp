#include "table_comparison.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "layer_timer.h"
#include "numbers.h"
#include "progress.h"
#include "sample_statistics.h"
#include "text_table.h"

namespace tool {
namespace {

std::string ms(double milliseconds) {
    return fixed(milliseconds, 3);
}

std::string ratio(double before, double after) {
    return before > 0.0 && after > 0.0 ? fixed(before / after, 2) : "-";
}

}  // namespace

void settle(const std::vector<const RunnableNet*>& nets, const std::vector<NetInput>& inputs,
            int at_least, MeteredPools& pools) {
    constexpr double most_ms = 5000.0;
    constexpr int most_runs = 200;
    Progress progress("warm-up run", 0);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < at_least || !pools.settled(); ++i) {
        if (milliseconds_since(start) >= most_ms || i >= std::max(at_least, most_runs)) break;
        for (const RunnableNet* net : nets) {
            net->run(inputs, net->last_position(), RunnableNet::on(pools), nullptr);
        }
        pools.note_run();
        progress.step(i + 1);
    }
}

NetComparison compare_nets(const RunnableNet& by_rule, const RunnableNet& by_table,
                           const std::vector<NetInput>& inputs, int warmup, int runs,
                           MeteredPools& pools) {
    const RunnableNet* nets[2] = {&by_rule, &by_table};
    LayerNames names[2];
    for (int k = 0; k < 2; ++k) {
        nets[k]->run_checked(inputs, nets[k]->last_position(), RunnableNet::on(pools), &names[k]);
    }
    const size_t layers = names[0].rows.size();
    LayerTimer timers[2] = {LayerTimer(layers, static_cast<size_t>(runs)),
                            LayerTimer(layers, static_cast<size_t>(runs))};
    std::vector<double> whole[2];
    settle({&by_rule, &by_table}, inputs, warmup, pools);
    Progress progress("run", runs);
    for (int i = 0; i < runs; ++i) {
        for (int k = 0; k < 2; ++k) {
            const RunnableNet::Settings settings = RunnableNet::on(pools);
            const auto start = std::chrono::steady_clock::now();
            nets[k]->run(inputs, nets[k]->last_position(), settings, nullptr);
            whole[k].push_back(milliseconds_since(start));
            timers[k].start_run();
            nets[k]->run(inputs, nets[k]->last_position(), settings, &timers[k]);
        }
        progress.step(i + 1);
    }

    NetComparison comparison;
    comparison.runs = runs;
    comparison.rule_ms = statistics_of(whole[0]).p50;
    comparison.table_ms = statistics_of(whole[1]).p50;
    for (size_t i = 0; i < layers; ++i) {
        comparison.rows.push_back({names[0].rows[i].id, names[0].rows[i].type,
                                   names[0].rows[i].operator_name, names[1].rows[i].operator_name,
                                   statistics_of(timers[0].times[i]).p50,
                                   statistics_of(timers[1].times[i]).p50});
    }
    return comparison;
}

void print_comparison(const NetComparison& comparison, bool json) {
    if (json) {
        nlohmann::ordered_json out;
        out["runs"] = comparison.runs;
        out["default_rule_ms"] = comparison.rule_ms;
        out["table_ms"] = comparison.table_ms;
        out["ratio"] = comparison.table_ms > 0.0 ? comparison.rule_ms / comparison.table_ms : 0.0;
        out["layers"] = nlohmann::ordered_json::array();
        for (const NetComparison::Row& row : comparison.rows) {
            out["layers"].push_back(
                {{"id", row.id},
                 {"type", row.type},
                 {"default_operator", row.rule_operator},
                 {"default_ms", row.rule_ms},
                 {"table_operator", row.table_operator},
                 {"table_ms", row.table_ms},
                 {"ratio", row.table_ms > 0.0 ? row.rule_ms / row.table_ms : 0.0}});
        }
        std::printf("%s\n", out.dump(2).c_str());
        return;
    }
    TextTable table;
    table.column("id", TextTable::right);
    table.column("layer", TextTable::left);
    table.column("default operator", TextTable::left);
    table.column("ms", TextTable::right);
    table.column("table's operator", TextTable::left);
    table.column("ms", TextTable::right);
    table.column("times", TextTable::right);
    double sums[2] = {};
    for (const NetComparison::Row& row : comparison.rows) {
        sums[0] += row.rule_ms;
        sums[1] += row.table_ms;
        table.row({std::to_string(row.id), row.type, row.rule_operator, ms(row.rule_ms),
                   row.table_operator == row.rule_operator ? "the same" : row.table_operator,
                   ms(row.table_ms), ratio(row.rule_ms, row.table_ms)});
    }
    table.rule();
    table.row({"", "sum of the layers", "", ms(sums[0]), "", ms(sums[1]), ratio(sums[0], sums[1])});
    table.row({"", "whole run", "", ms(comparison.rule_ms), "", ms(comparison.table_ms),
               ratio(comparison.rule_ms, comparison.table_ms)});
    std::fputs(("Medians of " + std::to_string(comparison.runs) +
                " runs by the default rule and by the table, in turns\n\n" + table.text())
                   .c_str(),
               stdout);
}

}  // namespace tool
