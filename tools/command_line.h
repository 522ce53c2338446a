// The words of the command line.
#pragma once

#include <string>
#include <variant>

#include "bench_command.h"
#include "compare_command.h"
#include "convert_command.h"
#include "gpu_info_command.h"
#include "image_command.h"
#include "info_command.h"
#include "run_command.h"
#include "tune_command.h"

namespace tool {

using Command = std::variant<InfoCommand, RunCommand, BenchCommand, TuneCommand, CompareCommand,
                             ConvertCommand, ImageCommand, GpuInfoCommand>;

/// Throws UsageError for what makes no sense, and NothingToDo once help or the version is printed.
Command parse_command_line(int argc, char** argv);

}  // namespace tool
