// Rewrites of ONNX graphs that keep every value that is left, so that what comes out can be
// evaluated like what went in. Each is a unit of its own.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "modelkit/onnx/emitter.h"
#include "modelkit/onnx/graph.h"
#include "modelkit/status.h"

namespace modelkit::onnx {

/// Who reads what. Stands for a graph as it was when the object was made.
class Uses {
public:
    explicit Uses(const Graph& graph);

    /// The node that is the only reader of a value that is no output of the graph; nothing for all
    /// other values. A node that reads it twice is no sole reader.
    std::optional<size_t> sole_reader(const std::string& value) const;
    /// The node that makes a value; nothing for inputs and initializers.
    std::optional<size_t> maker(const std::string& value) const;
    bool is_output(const std::string& value) const { return outputs.count(value) != 0; }
    bool is_used(const std::string& value) const {
        return is_output(value) || readers.count(value) != 0;
    }

private:
    std::unordered_map<std::string, size_t> makers;
    std::unordered_map<std::string, std::vector<size_t>> readers;
    std::set<std::string> outputs;
};

/// The values that are computed from constants and from shapes: every input gives the same.
std::set<std::string> fixed_values(const Graph& graph);

/// Takes nodes out of the graph: those whose positions are in `dead`.
void erase_nodes(Graph& graph, const std::set<size_t>& dead);
/// Takes out nodes and initializers from which no output comes.
void remove_unused(Graph& graph);
/// An initializer under a name that is not in use yet; the name.
std::string add_initializer(Graph& graph, const std::string& like, Tensor tensor);

/// How many numbers the constants of a graph are, those in attributes included.
int64_t constant_elements(const Graph& graph);

/// Makes constants of nodes whose inputs are all constants, and lets constants go that nothing
/// reads any more.
///
/// A few bytes can ask for constants of any size. Computed constants get room for twice the numbers
/// that the file has and 2^22 more, 64 times as many and 2^26 more in the course of time, and 2^32
/// steps; beyond that a Refusal is thrown.
class ConstantFolder {
public:
    explicit ConstantFolder(Graph& graph);

    /// The numbers that the file has.
    int64_t own_elements() const { return own; }

    /// Computes the outputs of a node; they become initializers, floats unless they are computed
    /// from doubles or cast to them. False,
    /// and nothing changes, when an input is no constant or the evaluator refuses.
    bool fold(const Node& node);
    /// The same for all nodes; those that were folded are gone.
    void fold_all();
    /// Counts who reads what, for a graph that was changed otherwise.
    void count_readers();
    /// Says that a node will not read its inputs again.
    void release_inputs(const Node& node);

private:
    void hold(const std::string& name, Tensor tensor);
    bool take_constant(Node& node);

    Graph& graph;
    int64_t own;
    int64_t held = 0;
    int64_t computed = 0;
    int64_t steps = 0;
    std::unordered_map<std::string, int64_t> computed_sizes;  // of constants that are held
    std::unordered_map<std::string, size_t> readers;  // of initializers; outputs have one more
};

/// Whether a node hands its first input on: Identity, Dropout as it is at inference, and casts
/// among floating-point types. A cast of a constant is none where it goes to double or comes from
/// there, since that says in how many digits the next node computes.
bool hands_on(const Graph& graph, const Node& node);
/// Takes out the nodes that hand their input on. Casts of what is computed from shapes stay until
/// that is folded: they make numbers with a fraction of integers.
void remove_identities(Graph& graph);
/// A line for each cast to fewer digits than a float has: the engines keep all digits there.
std::vector<std::string> cast_notes(const Graph& graph);

/// A multiplication and an addition of constants, for each channel or for all.
struct AffineNode {
    size_t data_input = 0;  ///< which of the node's inputs is the tensor
    Affine affine;          ///< lists of one number, or of one for each channel
    bool per_channel = false;
    int64_t channel_from_end = 0;  ///< of per-channel constants: 0 for the last axis of the
                                   ///< tensor, 1 for the one before and so on
};
/// What a BatchNormalization, Add, Sub, Mul, Div or Neg with constants is. `rank` of the tensor
/// that it reads, 0 when it is not known. Nothing for all other nodes.
std::optional<AffineNode> affine_of(const Graph& graph, const Node& node, size_t rank);

/// Folds such nodes into the Conv, ConvTranspose or Gemm before them where that has no other
/// reader.
void fold_affine(Graph& graph);

/// Moves the zeros of a Pad into the Conv or AveragePool behind it, -inf into the MaxPool.
void merge_pads(Graph& graph);

/// All of the above. Throws a Refusal that names the node where constants take too much.
void simplify(Graph& graph, ConstantFolder& folder);

/// The pads of a Pad node with constants: begins, then ends, one for each axis. Nothing when they
/// are no constants or an axis list is given.
struct PadNode {
    std::vector<int64_t> pads;
    std::string mode;
    double value = 0;
};
std::optional<PadNode> pad_of(const Graph& graph, const Node& node);

}  // namespace modelkit::onnx
