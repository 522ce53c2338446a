// `tarno compare`: both engines on one input, layer by layer.
#pragma once

#include <string>
#include <vector>

#include "gpu_rules.h"
#include "model_plan.h"
#include "net_input.h"

namespace tool {

struct CompareCommand {
    std::string model;
    std::vector<std::string> inputs;
    InputRules rules;
    GpuOptions gpu;
    bool json = false;
    PlanOptions plan;
    RunLimits limits;
    bool verbose = false;
};

/// Prints the report to standard output. Throws CommandError, behind the report, when a layer's
/// difference is beyond what half storage explains, and when no layer can be compared.
void compare(const CompareCommand& command);

}  // namespace tool
