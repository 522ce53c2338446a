// Shows how far a converted model is from its graph, and why.
//
// The graph is evaluated three times in double: as it is, with the constants that the file's halves
// mean, and with these once more, each weight changed at random by as much as float sums of its
// layer's length can be off, and each number that a mean is made of. A float sum is the exact sum
// of products that are each off by no more than that (the classic backward error bound), so the
// third run shows what float arithmetic can do to this network's outputs. The engine has to agree
// with the second run within a multiple of the distance to the third.
//
// The second run's graph is the converter's own work. So that it may not be its own judge, the
// graph as it was read is run with its weights off by as much as halves can make them
// (weight_noise.h): the second run has to agree with the first within a multiple of what these runs
// are off.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "modelkit/onnx/converter.h"
#include "modelkit/onnx/graph.h"
#include "modelkit/status.h"

namespace modelkit::onnx {

/// Distances between two tensors of one shape.
struct Difference {
    double maximum = 0;   ///< the largest of two elements; infinite where one or both are no number
    double relative = 0;  ///< root of the summed squared differences over that of the values
};

struct ValueProof {
    std::string name;
    int layer = 0;
    double largest = 0;           ///< magnitude in the graph
    Difference from_graph;        ///< between the engine and the graph
    Difference by_halves;         ///< between the graph with the file's constants and the graph
    double unexplained = 0;       ///< largest difference between the engine and that graph
    double bound = 0;             ///< for `unexplained`
    double halves_bound = 0;      ///< for `by_halves.maximum`
    std::vector<double> numbers;  ///< of the engine; for outputs only
    bool halves_hold() const { return by_halves.maximum <= halves_bound; }
    bool holds() const { return unexplained <= bound && halves_hold(); }
};

struct Proof {
    std::vector<ValueProof> outputs;
    std::vector<ValueProof> layers;  ///< of all values that graph and model share, where asked for
    bool holds() const;
};

/// Fails when a proof would keep more numbers in memory than its limits allow, before any is there:
/// of the inputs, or of the tensors of all layers.
Status require_room(const Conversion& conversion);

/// Seeded numbers from -1 to 1 for each input, the same everywhere.
std::map<std::string, Tensor> random_inputs(const Conversion& conversion, uint32_t seed);

/// `original` is the graph as it was read. `model_path` is the converted file, which is run on the
/// CPU engine, layer by layer kept. `progress`, which may be empty, hears how many of 4 steps are
/// done. Fails when something does not run, and when there is nothing to hold the model against: an
/// output that is not a number in the graph, or has no finite bound. That a bound does not hold is
/// in the proof.
Status prove(const Graph& original, const Conversion& conversion, const std::string& model_path,
             const std::map<std::string, Tensor>& inputs, bool all_layers,
             const std::function<void(int)>& progress, Proof& proof);

}  // namespace modelkit::onnx
