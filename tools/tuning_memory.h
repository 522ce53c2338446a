// What `tarno tune` takes for a model: more than a run, since it keeps all tensors of one, and
// tries operators on them.
#pragma once

#include <cstdint>
#include <vector>

#include "model_plan.h"
#include "table_slots.h"

namespace tool {

struct TuningMemory {
    /// The default rule's net, a second copy of all weights, all tensors: bytes while operators are
    /// tried.
    int64_t kept = 0;
    /// By row of the table: what a trial takes on top outside its pools. A double for each number
    /// of the top (the bounds), three copies of the weights (those that an operator is given, a
    /// packed form, one on the way), the bottoms in another layout, and once more for scratch that
    /// comes from no allocator.
    std::vector<int64_t> trial;
    /// By row: what the default operator takes from the pools at the least.
    std::vector<int64_t> least_pools;
    /// The two nets that are compared in the end, when nothing is kept any more.
    int64_t comparing = 0;
};

/// Saturated sums of the plan's numbers.
TuningMemory tuning_memory(const ModelPlan& plan, const std::vector<TableSlot>& slots);

/// Throws CommandError, which names the layer whose trials would take the most, when the default
/// operators could not be tried within the limit.
void require_tunable(const ModelFile& model, const ModelPlan& plan,
                     const std::vector<TableSlot>& slots, const RunLimits& limits);

}  // namespace tool
