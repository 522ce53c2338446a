// Runs ONNX graphs in double, operator by operator, by the definitions of ONNX and by nothing else.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "modelkit/onnx/graph.h"
#include "modelkit/status.h"

namespace modelkit::onnx {

/// What an evaluation may use, so that a small file with huge shapes neither fills the memory nor
/// runs for days. A node that would go beyond is refused before it starts.
struct EvaluationLimits {
    int64_t elements = int64_t(1) << 28;  ///< of all computed tensors together, 8 bytes each
    int64_t steps = int64_t(1) << 38;  ///< products, comparisons or copies, of all nodes together
    std::string exceeded = {};         ///< why a node was refused for them, empty when none was
};

/// Computes every value of a graph: the judge of converted models, independent of the engines and
/// of the converter. All floating-point arithmetic is in double, integer arithmetic in 64 bits that
/// wrap around; a cast to a narrower floating-point type rounds nothing.
///
/// What is computed from constants and shapes alone is a Float tensor, rounded to floats node by
/// node as its type says, unless it comes from doubles or is cast to them. Such numbers become
/// sizes and indices: the floor of 10 * 0.7f is 7 in floats and 6 in doubles, and the graph
/// means 7.
///
/// `inputs` has a tensor for each of `graph.inputs`, of the declared shape where the graph gives
/// numbers. `values` receives the inputs and every output of every node by name (initializers are
/// not copied); on failure it holds what was computed before the node that failed. The order of
/// summation is not specified.
///
/// Refused with one line that names the node, its operator and the reason: operators, attributes
/// and element types that are not supported, shapes that do not fit, and the few cases that the
/// definitions leave open.
Status evaluate(const Graph& graph, const std::map<std::string, Tensor>& inputs,
                std::map<std::string, Tensor>& values,
                const EvaluationLimits& limits = EvaluationLimits());

/// The same within what is left of limits, which becomes less.
Status evaluate_within(EvaluationLimits& left, const Graph& graph,
                       const std::map<std::string, Tensor>& inputs,
                       std::map<std::string, Tensor>& values);

/// Whether every node is one that its operator set defines and the evaluator knows: the operator's
/// name, how many inputs it has, its attributes and their kinds. Looks at no shapes and no values.
Status check_forms(const Graph& graph);

}  // namespace modelkit::onnx
