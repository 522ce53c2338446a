#include "tuning_table.h"

#include <map>
#include <regex>
#include <sstream>

#include "errors.h"
#include "files.h"
#include "table_slots.h"

namespace tool {
namespace {

constexpr int64_t largest_file = int64_t{16} << 20;
constexpr size_t longest_line = 2000;
const std::string factory_ending = "_operator_creator";

std::string place(const std::string& path, int line) {
    return path + ": line " + std::to_string(line) + ": ";
}

std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// The row of a line that holds one.
TuningTable::Row parse_row(const std::string& path, int line, const std::string& text) {
    static const std::regex form(
        R"(\{\s*(?:TarnoCPU::\s*)?([A-Za-z_]\w*)\s*,\s*(-?\d{1,9})\s*,\s*(-?\d{1,9})\s*\}\s*,?)");
    std::smatch match;
    if (!std::regex_match(text, match, form)) {
        throw CommandError(place(path, line) + "expected a row such as {FACTORY, 0, 0}, found \"" +
                           text + "\"");
    }
    TuningTable::Row row;
    row.line = line;
    row.operator_name = match[1];
    row.top_frac_bits = std::stoi(match[2]);
    row.weight_frac_bits = std::stoi(match[3]);
    std::string& name = row.operator_name;
    if (name == "nullptr") return row;
    const size_t ending = name.size() < factory_ending.size() ? std::string::npos
                                                              : name.size() - factory_ending.size();
    if (ending == std::string::npos ||
        name.compare(ending, std::string::npos, factory_ending) != 0) {
        throw CommandError(place(path, line) + "expected a name that ends with " + factory_ending +
                           ", found \"" + name + "\"");
    }
    name.resize(ending);
    if (TarnoCPU::find_operator(name.c_str()) == nullptr) {
        throw CommandError(place(path, line) + "expected an operator of the library, found \"" +
                           name + "\"");
    }
    return row;
}

}  // namespace

TuningTable read_tuning_table(const std::string& path) {
    TuningTable table;
    table.path = path;
    std::istringstream text(whole_file(path, largest_file));
    enum { before, inside, behind } where = before;
    std::string line;
    for (int number = 1; std::getline(text, line); ++number) {
        const size_t comment = line.find("//");
        if (comment != std::string::npos) line.resize(comment);
        line = trimmed(line);
        if (line.size() > longest_line) {
            throw CommandError(place(path, number) + "expected at most " +
                               std::to_string(longest_line) + " characters, found " +
                               std::to_string(line.size()));
        }
        if (line.empty()) continue;
        if (where == before) {
            // The declaration ahead of the brace is the host's: it may have another name there.
            if (line.back() == '{') where = inside;
        } else if (where == inside && line == "};") {
            where = behind;
        } else if (where == inside) {
            table.rows.push_back(parse_row(path, number, line));
        } else {
            throw CommandError(place(path, number) + "expected nothing behind the table, found \"" +
                               line.substr(0, 80) + "\"");
        }
    }
    if (where == before) throw CommandError(path + ": expected a line \"{\", found none");
    if (where == inside) throw CommandError(path + ": expected a line \"};\", found none");
    return table;
}

std::vector<TarnoCPU::LayerInferenceConfig> checked_configs(const TuningTable& table,
                                                            const ModelFile& model,
                                                            const ModelPlan& plan) {
    const std::vector<TableSlot> slots = table_slots(model, plan);
    if (slots.size() != table.rows.size()) {
        throw CommandError(table.path + ": expected " + std::to_string(slots.size()) +
                           " rows for " + model.path + ", found " +
                           std::to_string(table.rows.size()));
    }
    // Layouts pass from layer to layer: by id behind the whole layer, and from a layer to the
    // activation that is fused to it.
    std::map<unsigned short, Packing> packings;
    std::vector<TarnoCPU::LayerInferenceConfig> configs;
    for (size_t i = 0; i < slots.size(); ++i) {
        const TableSlot& slot = slots[i];
        const TuningTable::Row& row = table.rows[i];
        const auto fail = [&](const std::string& text) {
            throw CommandError(place(table.path, row.line) + "row " + std::to_string(i) + ", " +
                               slot_text(slot) + ": " + text);
        };

        Packing packing = Packing::planes;
        if (slot.fused) {
            packing = packings[slot.id];
        } else {
            const auto& bottoms = plan.layers[*plan.find(slot.id)].bottoms;
            for (size_t k = 0; k < bottoms.size(); ++k) {
                if (k == 0) packing = packings[bottoms[k]];
                if (packings[bottoms[k]] != packing) {
                    fail("expected bottoms of one layout, found CHW and C4HW4");
                }
            }
        }

        const bool named = row.operator_name != "nullptr";
        if (named != slot.takes_operator) {
            fail(slot.takes_operator ? "expected an operator, found nullptr"
                                     : "expected nullptr, found " + row.operator_name);
        }
        if (!named) {
            const std::string reason = misfit_without_operator(slot, packing);
            if (!reason.empty()) fail("expected another layout: " + slot.layer + " " + reason);
            configs.push_back({nullptr, row.top_frac_bits, row.weight_frac_bits});
        } else {
            const TarnoCPU::OperatorInfo* info = TarnoCPU::find_operator(row.operator_name.c_str());
            const std::string reason = misfit(*info, slot, packing);
            if (!reason.empty()) {
                fail("expected an operator that fits, found " + row.operator_name + ": it " +
                     reason);
            }
            packing = packing_behind(*info, packing);
            configs.push_back({info->creator, row.top_frac_bits, row.weight_frac_bits});
        }
        packings[slot.id] = packing;
        const bool last_of_layer = i + 1 == slots.size() || slots[i + 1].id != slot.id;
        if (last_of_layer && packing == Packing::fours &&
            plan.layers[*plan.find(slot.id)].read_count == 0) {
            fail("expected a result in CHW, found C4HW4");
        }
    }
    return configs;
}

}  // namespace tool
