// What `tarno tune` says of a table: what was tried, what was taken, and what it is worth.
#pragma once

#include <string>
#include <vector>

#include "operator_trial.h"

namespace tool {

/// All that was tried for one row of the table.
struct Candidates {
    std::vector<Trial> right;
    std::vector<Trial> rejected;
};

struct TunedRow {
    const TableSlot* slot = nullptr;
    std::string type;                                 ///< as a net shows it
    const TarnoCPU::OperatorInfo* by_rule = nullptr;  ///< null for layers without an operator
    const Candidates* candidates = nullptr;
    const Trial* chosen = nullptr;  ///< null where no operator was chosen
};

/// All operators that were tried, row by row, with their times; the default operator of each row
/// beside the chosen one; those that were rejected, and why.
std::string report_of(const std::vector<TunedRow>& rows);

}  // namespace tool
