// `tarno info`: what is in a model file.
#pragma once

#include <string>

#include "model_plan.h"

namespace tool {

struct InfoCommand {
    std::string model;
    bool json = false;
    bool dot = false;
    PlanOptions plan;
    bool verbose = false;
};

/// Prints to standard output. Throws CommandError; for a sound file with a layer that does not run
/// here, after it has printed.
void info(const InfoCommand& command);

}  // namespace tool
