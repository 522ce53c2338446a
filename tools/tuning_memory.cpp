#include "tuning_memory.h"

#include <algorithm>

#include "errors.h"
#include "layer_rules.h"

namespace tool {
namespace {

constexpr int64_t float_bytes = 4, double_bytes = 8;

}  // namespace

TuningMemory tuning_memory(const ModelPlan& plan, const std::vector<TableSlot>& slots) {
    TuningMemory memory;
    memory.kept = weight_bytes(plan, WeightsOf::Rule);
    for (const ModelInput& input : plan.inputs) {
        memory.kept =
            saturated_sum(memory.kept, saturated_product({input.size->elements(), float_bytes}));
    }
    for (const TableSlot& slot : slots) {
        const PlannedLayer& layer = plan.layers[*plan.find(slot.id)];
        // What is noted of the weights is all that the file has, or as much as the operator wants.
        const int64_t weights =
            slot.fused
                ? 0
                : std::max(layer.weight_bytes, saturated_product({layer.parameters, float_bytes}));
        const int64_t top = layer.tensor_bytes;
        int64_t bottoms = slot.fused ? top : 0;
        if (!slot.fused) {
            for (const unsigned short bottom : layer.bottoms) {
                bottoms = saturated_sum(bottoms, plan.layers[*plan.find(bottom)].tensor_bytes);
            }
        }
        memory.kept = saturated_sum(memory.kept, saturated_sum(weights, top));
        memory.trial.push_back(saturated_sum(
            saturated_product({top, double_bytes / float_bytes}),
            saturated_sum(saturated_product({weights, 3}), saturated_product({bottoms, 2}))));
        memory.least_pools.push_back(saturated_sum(top, slot.fused ? 0 : layer.scratch_bytes));
    }
    memory.comparing = saturated_sum(weight_bytes(plan, WeightsOf::RuleAndTable), plan.peak_bytes);
    return memory;
}

void require_tunable(const ModelFile& model, const ModelPlan& plan,
                     const std::vector<TableSlot>& slots, const RunLimits& limits) {
    const TuningMemory memory = tuning_memory(plan, slots);
    int64_t most = 0;
    size_t worst = 0;
    for (size_t i = 0; i < slots.size(); ++i) {
        const int64_t trial = saturated_sum(memory.trial[i], memory.least_pools[i]);
        if (trial > most) {
            most = trial;
            worst = i;
        }
    }
    const int64_t need = std::max(saturated_sum(memory.kept, most), memory.comparing);
    if (need <= limits.memory || slots.empty()) return;
    throw CommandError(layer_fault(model.path, slots[worst].id, slots[worst].type,
                                   "expected at most " + bytes_text(limits.memory) +
                                       " of memory for tuning, found a need of " +
                                       bytes_text(need) + " (see --memory-limit)"));
}

}  // namespace tool
