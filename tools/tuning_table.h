// Tuning tables as files: the text that the library's printer writes, read back.
#pragma once

#include <tarno/cpu.h>

#include <string>
#include <vector>

#include "model_plan.h"

namespace tool {

struct TuningTable {
    struct Row {
        std::string operator_name;  ///< class name; "nullptr" for a layer without an operator
        int line = 0;               ///< in the file, from 1
        int top_frac_bits = 0;
        int weight_frac_bits = 0;
    };
    std::string path;
    std::vector<Row> rows;
};

/// Throws CommandError that names the line.
TuningTable read_tuning_table(const std::string& path);

/// The factories of a table for a model, checked row by row: known operators, as many as the model
/// has layers, each of them fit for its layer, its layout and this machine. Throws CommandError
/// that names row, layer and reason.
std::vector<TarnoCPU::LayerInferenceConfig> checked_configs(const TuningTable& table,
                                                            const ModelFile& model,
                                                            const ModelPlan& plan);

}  // namespace tool
