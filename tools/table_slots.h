// The layers of a built net as the rows of a tuning table see them, and which operators fit a row.
#pragma once

#include <tarno/cpu.h>

#include <string>
#include <vector>

#include "model_plan.h"

namespace tool {

/// How the channels of a tensor lie in memory; those of the two that operators change between.
enum class Packing { planes, fours };

/// One row of a table: a layer of the net, fused activations included.
struct TableSlot {
    unsigned short id = 0;
    unsigned short type = 0;
    bool fused = false;          ///< the activation behind the layer, not the layer itself
    std::string layer;           ///< key of `create_layer`
    bool takes_operator = true;  ///< false: the row has a null factory
    int activation = 0;          ///< kind, for activations
    Window window;               ///< all zero for layers that have none
    int groups = 1;
    bool has_bias = false;
    int mode = 0;        ///< pooling type or upsampling mode
    double scale = 0.0;  ///< of an upsampling
    int axis = 0;        ///< of a concat
    TensorSize in;       ///< of the first bottom
    TensorSize out;
};

/// The rows of a model whose plan allows it, in the order of the table.
std::vector<TableSlot> table_slots(const ModelFile& model, const ModelPlan& plan);

/// "layer 7 (Conv2D)" or "layer 7 (Conv2D), its activation".
std::string slot_text(const TableSlot& slot);

/// Why an operator does not fit a row that gets its bottom in `packing`; empty when it does.
std::string misfit(const TarnoCPU::OperatorInfo& info, const TableSlot& slot, Packing packing);

/// Why a layer without an operator can't take its bottoms in `packing`; empty when it can.
std::string misfit_without_operator(const TableSlot& slot, Packing packing);

/// In which packing an operator leaves its top.
Packing packing_behind(const TarnoCPU::OperatorInfo& info, Packing packing);

const char* packing_text(Packing packing);

/// Whether this machine's processor has the instruction set.
bool machine_has(TarnoCPU::OperatorInfo::InstructionSet set);
const char* instruction_set_text(TarnoCPU::OperatorInfo::InstructionSet set);

}  // namespace tool
