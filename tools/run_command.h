// `tarno run`: a model over one input, its output into files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "gpu_rules.h"
#include "model_plan.h"
#include "net_input.h"

namespace tool {

struct RunCommand {
    std::string model;
    bool on_gpu = false;
    GpuOptions gpu;
    std::string table;  ///< tuning table of the CPU engine; empty for the default rule
    std::vector<std::string> inputs;
    std::string output;                      ///< .png or .npy; empty for none
    std::string all_layers;                  ///< folder; empty for none
    std::string composite;                   ///< .png; empty for none
    std::string background = "255,255,255";  ///< a colour or a picture
    bool resize_output = false;
    std::optional<int> layer;
    int repeat = 1;
    InputRules rules;
    PlanOptions plan;
    RunLimits limits;
    bool verbose = false;
};

/// Says on standard output what it wrote. Throws CommandError; nothing is written then.
void run(const RunCommand& command);

}  // namespace tool
