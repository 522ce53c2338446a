// `tarno bench`: how long a model takes, where, and with how much memory.
#pragma once

#include <optional>
#include <string>

#include "gpu_rules.h"
#include "model_plan.h"

namespace tool {

struct BenchCommand {
    std::string model;
    bool on_gpu = false;
    GpuOptions gpu;
    std::string table;            ///< tuning table; empty for the default rule
    bool compare_tables = false;  ///< the default rule beside the table, layer by layer
    int warmup = 10;
    std::optional<int> runs;
    std::optional<double> duration;  ///< seconds of the steady state
    std::optional<double> fps;       ///< frames that fall due in a second; none: back to back
    bool json = false;
    PlanOptions plan;
    RunLimits limits;
    bool verbose = false;
};

/// Prints the report to standard output. Throws CommandError.
void bench(const BenchCommand& command);

}  // namespace tool
