// `tarno tune`: finds the fastest operators for a model on this machine.
#pragma once

#include <string>

#include "model_plan.h"

namespace tool {

struct TuneCommand {
    std::string model;
    std::string output;  ///< empty: standard output
    PlanOptions plan;
    RunLimits limits;
    bool verbose = false;
};

/// Writes the table; says on standard output what was chosen when the table goes into a file, else
/// on standard error. Throws CommandError.
void tune(const TuneCommand& command);

}  // namespace tool
