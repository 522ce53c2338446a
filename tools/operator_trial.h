// Trying the operators that could compute a layer: right or not, and how fast.
#pragma once

#include <tarno/cpu.h>

#include <string>
#include <vector>

#include "table_slots.h"

namespace tool {

/// What an operator of one layer is loaded with, and what it gets and has to give in a run.
struct LayerTask {
    TarnoCPU::OperatorCreator default_creator = nullptr;  ///< null for layers without an operator
    TarnoCPU::ParamDict parameters;
    TarnoCPU::Mat weights;  ///< flat; empty for layers without
    TarnoCPU::Mat bias;
    std::vector<TarnoCPU::Mat> bottoms;  ///< planes
    TarnoCPU::Mat top;                   ///< planes, of the default operator
};

/// Tasks of all layers of a model in the order of its table, on the given inputs: one run by the
/// default rule with every tensor kept. Throws CommandError when a layer fails.
std::vector<LayerTask> record_tasks(const ModelFile& model, const TarnoCPU::TarnoNet& net,
                                    const std::vector<std::pair<int, TarnoCPU::Mat>>& inputs);

/// The command's limit, and what of it a trial finds taken.
struct TrialMemory {
    int64_t limit = 0;
    int64_t taken = 0;
};

struct Trial {
    const TarnoCPU::OperatorInfo* info = nullptr;
    Packing in = Packing::planes;
    Packing out = Packing::planes;
    double milliseconds = 0.0;  ///< the fastest of several runs
    std::string rejection;      ///< why its output is not right; empty when it is
};

/// Largest difference from the exact result that rounding explains, element by element of the top;
/// for layers that sum products it grows with the length of the sum and the size of the products.
/// Throws CommandError when the limit is too low for that.
std::vector<double> error_bounds(const TableSlot& slot, const LayerTask& task,
                                 const TrialMemory& memory);

/// Runs one operator on one task. The output is right where it differs from the default operator's
/// by at most twice the bound: both are that far from the exact result at the most. What its runs
/// take from the pools is within the memory, or it is rejected.
Trial try_operator(const TarnoCPU::OperatorInfo& info, const LayerTask& task, Packing packing,
                   const std::vector<double>& bounds, const TrialMemory& memory);

}  // namespace tool
