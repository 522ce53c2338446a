// A model as a drawing for Graphviz.
#pragma once

#include <string>

#include "model_plan.h"

namespace tool {

/// A `digraph` with a node for each layer, drawn from top to bottom. Bottoms that the model does
/// not have are dashed.
std::string graph_text(const ModelFile& model, const ModelPlan& plan);

}  // namespace tool
