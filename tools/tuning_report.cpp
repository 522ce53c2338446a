#include "tuning_report.h"

#include <algorithm>

#include "numbers.h"
#include "text_table.h"

namespace tool {
namespace {

std::string ms(double milliseconds) {
    return fixed(milliseconds, 3);
}

std::string ratio(double before, double after) {
    return before > 0.0 && after > 0.0 ? fixed(before / after, 2) : "-";
}

/// The trial of the default operator, which takes and leaves planes; null where there is none.
const Trial* by_rule(const TunedRow& row) {
    for (const Trial& trial : row.candidates->right) {
        if (trial.info == row.by_rule && trial.in == Packing::planes) return &trial;
    }
    return nullptr;
}

std::string choices(const std::vector<TunedRow>& rows) {
    TextTable table;
    table.column("id", TextTable::right);
    table.column("layer", TextTable::left);
    table.column("default operator", TextTable::left);
    table.column("ms", TextTable::right);
    table.column("chosen operator", TextTable::left);
    table.column("ms", TextTable::right);
    table.column("times", TextTable::right);
    for (const TunedRow& row : rows) {
        if (row.by_rule == nullptr) continue;
        const Trial* rule = by_rule(row);
        const double before = rule != nullptr ? rule->milliseconds : 0.0;
        const double after = row.chosen != nullptr ? row.chosen->milliseconds : before;
        table.row({std::to_string(row.slot->id), row.type, row.by_rule->name, ms(before),
                   row.chosen != nullptr ? row.chosen->info->name : "-", ms(after),
                   ratio(before, after)});
    }
    return table.text();
}

std::string trials(const std::vector<TunedRow>& rows) {
    TextTable table;
    table.column("id", TextTable::right);
    table.column("layer", TextTable::left);
    table.column("operator", TextTable::left);
    table.column("layout", TextTable::left);
    table.column("ms", TextTable::right);
    table.column("times", TextTable::right);
    table.column("", TextTable::left);
    for (const TunedRow& row : rows) {
        const Trial* rule = row.by_rule != nullptr ? by_rule(row) : nullptr;
        std::vector<const Trial*> fastest_first;
        for (const Trial& trial : row.candidates->right) fastest_first.push_back(&trial);
        std::stable_sort(
            fastest_first.begin(), fastest_first.end(),
            [](const Trial* a, const Trial* b) { return a->milliseconds < b->milliseconds; });
        for (const Trial* trial : fastest_first) {
            std::string layout = packing_text(trial->in);
            if (trial->out != trial->in) layout += std::string(" to ") + packing_text(trial->out);
            const bool is_rule = trial == rule, is_chosen = trial == row.chosen;
            table.row({std::to_string(row.slot->id), row.type, trial->info->name, layout,
                       ms(trial->milliseconds),
                       ratio(rule != nullptr ? rule->milliseconds : 0.0, trial->milliseconds),
                       is_rule && is_chosen ? "default, chosen"
                       : is_rule            ? "default"
                       : is_chosen          ? "chosen"
                                            : ""});
        }
    }
    return table.text();
}

}  // namespace

std::string report_of(const std::vector<TunedRow>& rows) {
    std::string report =
        "Operators that were tried, the fastest of a layer first; times as fast as the "
        "default\n\n" +
        trials(rows) + "\nChosen on the cheapest way through the net\n\n" + choices(rows) + "\n";
    for (const TunedRow& row : rows) {
        for (const Trial& trial : row.candidates->rejected) {
            report += "rejected: " + slot_text(*row.slot) + ": " + trial.info->name + " " +
                      trial.rejection + "\n";
        }
    }
    return report;
}

}  // namespace tool
