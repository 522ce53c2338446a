#include "modelkit/onnx/proof.h"

#include <tarno/cpu.h>
#include <tarno/model.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <utility>

#include "modelkit/onnx/evaluator.h"
#include "modelkit/onnx/weight_noise.h"

namespace modelkit::onnx {

namespace {

using Values = std::map<std::string, Tensor>;

constexpr double FLOAT_UNIT = 0x1p-24;
// The third run is one draw of many: its distance may be several times smaller than the worst.
constexpr double DRAWS = 8.0;
// What halves may change is judged by runs of the graph itself: the nearest half is within 2^-12 of
// the largest and 2^-11 of the smallest numbers that share an exponent, and float products and sums
// of folded constants come on top.
constexpr double HALF_REACH = 1.25 * 0x1p-11;
constexpr uint32_t HALF_DRAWS = 3;
constexpr double HALF_MARGIN = 8.0;
// Layers without weights: each rounds its result a few times.
constexpr double ROUNDINGS_PER_LAYER = 4.0;

// The engine keeps every layer's tensor, 4 bytes a number, and the graph's inputs and values
// take 8.
constexpr int64_t MOST_KEPT = int64_t{1} << 29;
constexpr char WITHOUT_PROOF[] = "; --no-verify converts without a proof";

Difference difference_of(const std::vector<double>& a, const std::vector<double>& b) {
    Difference result;
    double squares = 0;
    double norm = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double distance = std::fabs(a[i] - b[i]);
        if (a[i] == b[i]) continue;  // infinities, too; no number is equal to none
        if (!std::isfinite(distance)) {
            result.maximum = result.relative = std::numeric_limits<double>::infinity();
            return result;
        }
        result.maximum = std::max(result.maximum, distance);
        squares += distance * distance;
    }
    for (const double value : b) norm += std::isfinite(value) ? value * value : 0.0;
    result.relative = norm > 0 ? std::sqrt(squares / norm) : std::sqrt(squares);
    return result;
}

// How many products a sum of the node has.
double products_of(const Node& node, const Tensor& weights) {
    const std::vector<int64_t>& dims = weights.dims;
    double length = 1;
    if (node.op_type == "Gemm" || node.op_type == "MatMul") {
        length = dims.size() == 2
                     ? static_cast<double>(dims[0] * dims[1]) /
                           static_cast<double>(node.integer("transB", 0) != 0 ? dims[0] : dims[1])
                     : 1.0;
    } else if (node.op_type == "LSTM") {
        length = static_cast<double>(dims.back());
    } else {
        // All but the outputs; of a transposed convolution all, which is more than enough.
        for (size_t i = node.op_type == "Conv" ? 1 : 0; i < dims.size(); ++i) {
            length *= static_cast<double>(dims[i]);
        }
        if (node.op_type == "ConvTranspose" && dims.size() > 1) {
            length /= static_cast<double>(std::max<int64_t>(1, dims[1]));
        }
    }
    return length;
}

// How many numbers a mean of the node is made of; 0 when the node is no mean.
double terms_of(const Node& node, const std::vector<int64_t>& dims) {
    double count = 1;
    if (node.op_type == "AveragePool") {
        for (const int64_t side : node.integers("kernel_shape")) {
            count *= static_cast<double>(side);
        }
    } else if (node.op_type == "GlobalAveragePool" || node.op_type == "ReduceMean") {
        // The lowering takes means over rows and columns only.
        for (size_t i = 2; i < dims.size(); ++i) count *= static_cast<double>(dims[i]);
    } else {
        return 0;
    }
    return count;
}

// Changes each number that a mean of n sees by as much as a float sum can. A mean has no weights to
// change; the chain of n sums gives the exact sum of numbers each off by up to n * 2^-24 of itself,
// so the mean is off by up to n * 2^-24 of the mean magnitude, and by nearly that where all
// roundings lean the same way, as those of a constant map do. That is no draw but the worst, which
// a draw for each number, most of which cancel, would miss by the root of n: all numbers of a
// channel are changed together, in the direction of their signs. Channels round apart, so each
// leans its own way, and since their draw may miss what they do together behind the mean, the
// bound, DRAWS times the change, is to be twice the worst.
void shake_mean(const Node& node, double terms, const std::vector<int64_t>& dims,
                std::mt19937& engine, Graph& result) {
    const double reach = 2.0 / DRAWS * (terms + 8.0) * FLOAT_UNIT;
    const auto channels = static_cast<size_t>(dims.size() > 1 ? dims[1] : 1);
    std::vector<double> shares(channels);
    for (double& share : shares) share = (engine() & 1) != 0 ? reach : -reach;
    std::vector<int64_t> shape(dims.size(), 1);
    if (dims.size() > 1) shape[1] = dims[1];
    const std::string& from = node.inputs[0];
    const std::string name = node.outputs[0] + ", its sums";
    result.initializers[name + ", shares"] = Tensor::of_doubles(shape, std::move(shares));
    const auto add = [&](const char* op_type, std::vector<std::string> inputs,
                         const std::string& output) {
        Node made;
        made.name = node.name;
        made.op_type = op_type;
        made.inputs = std::move(inputs);
        made.outputs = {output};
        result.nodes.push_back(std::move(made));
    };
    add("Abs", {from}, name + ", magnitudes");
    add("Mul", {name + ", magnitudes", name + ", shares"}, name + ", changes");
    add("Add", {from, name + ", changes"}, name);
    Node mean = node;
    mean.inputs[0] = name;
    result.nodes.push_back(std::move(mean));
}

// How far the engine's positions may be off along an axis of n inputs with aligned corners, as a
// part of the position itself; `times` is how many times as many outputs there are.
//
// By 4 and 8 a position is the product of the output's number and a step, which is a quotient: two
// roundings of 2^-24.
//
// By 2 it is a running sum from the step s in steps of 2s, s being just below a half. After k sums
// it is at about k: the sums rounded by up to 1 * 2^-24, 2 * 2^-24 ... k * 2^-24, together
// k * (k + 1) / 2 * 2^-24, of k that is (n / 2 + 1) * 2^-24 at most. s is off by 2^-24 of itself,
// and the second of the two outputs in a gap adds s once more. (n / 2 + 3) * 2^-24 holds them all;
// the sums alone have been seen to reach 0.45 of it.
double position_reach(int64_t n, int64_t times) {
    return (times == 2 ? static_cast<double>(n) / 2 + 3 : 2.0) * FLOAT_UNIT;
}

bool is_aligned(const Node& node) {
    return node.op_type == "Resize" && node.text("mode", "nearest") == "linear" &&
           node.text("coordinate_transformation_mode", "half_pixel") == "align_corners";
}

// Moves the positions of a linear resize with aligned corners by as much as the engine's may be
// off. The result then differs by that times the differences of neighbours, with their signs, as
// the engine's does, whose positions are those of all channels, and all that follows is computed
// with it. Output o lies at o * (n - 1) / (m - 1): the same as asymmetric coordinates have by a
// scale of (m - 1) / (n - 1), which may be a little less or more. The size that belongs to the
// scale is a little larger, so what is over is cut off. Rows and columns are moved in directions of
// their own; where both should have pulled together and the draw has them against each other, the
// change is still what the larger one does, no less than half: as with means, the bound is to be
// twice the worst.
bool shake_positions(const Node& node, const Tensor& data, const Tensor& output,
                     std::mt19937& engine, Graph& result) {
    const std::vector<int64_t>& in = data.dims;
    const std::vector<int64_t>& out = output.dims;
    std::vector<double> scales(in.size(), 1.0);
    std::vector<int64_t> axes;
    std::vector<int64_t> ends;
    for (size_t i = 0; i < in.size() && in.size() == out.size(); ++i) {
        if (in[i] < 2 || out[i] <= in[i] || out[i] % in[i] != 0) continue;
        const double reach = 2.0 / DRAWS * position_reach(in[i], out[i] / in[i]);
        const double share = (engine() & 1) != 0 ? reach : -reach;
        scales[i] =
            static_cast<double>(out[i] - 1) / static_cast<double>(in[i] - 1) / (1.0 + share);
        axes.push_back(static_cast<int64_t>(i));
        ends.push_back(out[i]);
    }
    if (axes.empty()) return false;
    const std::string name = node.outputs[0] + ", its positions";
    const auto count = static_cast<int64_t>(axes.size());
    result.initializers[name + ", scales"] =
        Tensor::of_doubles({static_cast<int64_t>(in.size())}, std::move(scales));
    result.initializers[name + ", starts"] =
        Tensor::of_integers({count}, std::vector<int64_t>(axes.size(), 0), ElementType::Int64);
    result.initializers[name + ", ends"] =
        Tensor::of_integers({count}, std::move(ends), ElementType::Int64);
    result.initializers[name + ", axes"] =
        Tensor::of_integers({count}, std::move(axes), ElementType::Int64);
    Node moved = node;
    Attribute& corner = moved.attributes["coordinate_transformation_mode"];
    corner.strings = {"asymmetric"};
    moved.inputs = {node.inputs[0], "", name + ", scales"};
    moved.outputs = {name};
    result.nodes.push_back(std::move(moved));
    Node cut;
    cut.name = node.name;
    cut.op_type = "Slice";
    cut.inputs = {name, name + ", starts", name + ", ends", name + ", axes"};
    cut.outputs = node.outputs;
    result.nodes.push_back(std::move(cut));
    return true;
}

// `values` are those of the graph, for the shapes.
Graph perturbed(const Graph& graph, double slack, const Values& values,
                const std::map<std::string, Tensor>& inputs) {
    Graph result = graph;
    std::mt19937 engine(1);
    std::set<std::string> seen;
    result.nodes.clear();
    for (const Node& node : graph.nodes) {
        const Tensor* data = nullptr;
        if (node.has_input(0)) {
            const auto value = values.find(node.inputs[0]);
            const auto input = inputs.find(node.inputs[0]);
            if (value != values.end()) data = &value->second;
            if (data == nullptr && input != inputs.end()) data = &input->second;
        }
        const double terms = data != nullptr ? terms_of(node, data->dims) : 0;
        if (terms > 0) {
            shake_mean(node, terms, data->dims, engine, result);
            continue;
        }
        if (data != nullptr && is_aligned(node)) {
            const auto output = values.find(node.outputs[0]);
            if (output != values.end() &&
                shake_positions(node, *data, output->second, engine, result)) {
                continue;
            }
        }
        result.nodes.push_back(node);
        const bool has_weights = node.op_type == "Conv" || node.op_type == "ConvTranspose" ||
                                 node.op_type == "Gemm" || node.op_type == "MatMul" ||
                                 node.op_type == "LSTM";
        if (!has_weights) continue;
        for (size_t i = 1; i < std::min<size_t>(node.inputs.size(), 4); ++i) {
            const auto found = result.initializers.find(node.inputs[i]);
            if (found == result.initializers.end() || !seen.insert(found->first).second ||
                is_integral(found->second.type)) {
                continue;
            }
            const double reach = (products_of(node, found->second) + 8.0) * FLOAT_UNIT + slack;
            std::vector<double> values = found->second.numbers();
            for (double& value : values) {
                const double unit = static_cast<double>(engine()) * 0x1p-31 - 1.0;
                value *= 1.0 + reach * unit;
            }
            found->second = Tensor::of_doubles(found->second.dims, std::move(values));
        }
    }
    return result;
}

std::vector<double> numbers_of(const Values& values, const std::map<std::string, Tensor>& inputs,
                               const std::string& name) {
    const auto found = values.find(name);
    if (found != values.end()) return found->second.numbers();
    const auto input = inputs.find(name);
    return input != inputs.end() ? input->second.numbers() : std::vector<double>();
}

// Within what is left beside the inputs, which count as values.
Status evaluate_for_proof(const Graph& graph, const std::map<std::string, Tensor>& inputs,
                          Values& values) {
    EvaluationLimits left;
    for (const auto& [name, tensor] : inputs) left.elements -= static_cast<int64_t>(tensor.size());
    const Status done = evaluate_within(left, graph, inputs, values);
    if (done || left.exceeded.empty()) return done;
    return Status::failure(done.message() + WITHOUT_PROOF);
}

// The converted model on the CPU engine, by the default rule, every blob kept.
class EngineRun {
public:
    Status run(const std::string& path, const Conversion& conversion,
               const std::map<std::string, Tensor>& inputs) {
        if (!loader.LoadFile(path.c_str(), false)) {
            return Status::failure("the converted model cannot be read back");
        }
        net.load_tarno_net_with_inference_config(loader, nullptr);
        net.setNetSize(static_cast<int>(loader.getModelBaseW()),
                       static_cast<int>(loader.getModelBaseH()));
        const std::map<unsigned short, ZQLayerInfo*> records = loader.getLayersInfo();
        extractor = std::make_unique<TarnoCPU::TarnoNetExtractor>(net.create_extractor());
        extractor->set_light_mode(false);
        for (size_t i = 0; i < conversion.names.inputs.size(); ++i) {
            const ModelNames::Tensor& input = conversion.names.inputs[i];
            const Tensor& tensor = inputs.at(input.name);
            std::vector<float> values(tensor.size());
            for (size_t k = 0; k < values.size(); ++k) {
                values[k] = static_cast<float>(tensor.number(k));
            }
            // As the record has it: channels, rows, columns.
            int c = 1, h = 1, w = 1;
            const auto found = records.find(static_cast<unsigned short>(input.layer));
            if (found == records.end() || net.layers.empty()) {
                return Status::failure("the converted model has no layer " +
                                       std::to_string(input.layer));
            }
            const ZQLayerInfo& record = *found->second;
            if (record.type == ZQLayerType_Input) {
                c = record.out_shape->channels;
                h = static_cast<int>(input.dims[2]);
                w = static_cast<int>(input.dims[3]);
            } else if (record.type != ZQLayerType_TensorInput) {
                return Status::failure("layer " + std::to_string(input.layer) +
                                       " of the converted model is expected to be the input " +
                                       in_quotes(input.name) + ", found one of type " +
                                       std::to_string(record.type));
            } else {
                const auto& shape = static_cast<const ZQLayerInfo_TensorInput&>(record).out_tensor;
                c = shape.dims[0];
                w = shape.dims[1];
            }
            const TarnoCPU::Mat in = TarnoCPU::Mat::from_float_array(
                values.data(), w, h, c, TarnoCPU::TensorShape::CHW, nullptr);
            if (in.empty()) return Status::failure("out of memory");
            if (extractor->input(static_cast<int>(i), in) != 0) {
                return Status::failure("the engine takes no input " + std::to_string(i));
            }
        }
        TarnoCPU::Mat last;
        const int result = extractor->extract(extractor->get_last_layer_index(), last);
        if (result != 0) {
            return Status::failure("the engine does not run the model, with result " +
                                   std::to_string(result));
        }
        for (size_t i = 0; i < net.layers.size(); ++i) {
            positions[net.layers[i]->id] = static_cast<int>(i);
        }
        return Status::success();
    }

    Status values_of(int layer, std::vector<double>& values) {
        if (positions.count(layer) == 0) {
            return Status::failure("the converted model has no layer " + std::to_string(layer));
        }
        TarnoCPU::Mat blob;
        const int result = extractor->extract(positions[layer], blob);
        if (result != 0 || blob.empty()) {
            return Status::failure("layer " + std::to_string(layer) + " gives no tensor");
        }
        const auto count = static_cast<size_t>(blob.shape.total());
        const float* from = blob.ptr<float>();
        values.assign(from, from + count);
        return Status::success();
    }

private:
    ZQNetLoader loader;
    TarnoCPU::TarnoNet net;
    std::unique_ptr<TarnoCPU::TarnoNetExtractor> extractor;
    std::map<int, int> positions;
};

}  // namespace

bool Proof::holds() const {
    return std::all_of(outputs.begin(), outputs.end(),
                       [](const ValueProof& output) { return output.holds(); });
}

Status require_room(const Conversion& conversion) {
    const int64_t most_of_inputs = EvaluationLimits().elements;
    int64_t of_inputs = 0;
    const ModelNames::Tensor* largest_input = nullptr;
    for (const ModelNames::Tensor& input : conversion.names.inputs) {
        of_inputs += element_count(input.dims);
        if (largest_input == nullptr ||
            element_count(input.dims) > element_count(largest_input->dims)) {
            largest_input = &input;
        }
    }
    if (of_inputs > most_of_inputs) {
        return Status::failure("at most " + std::to_string(most_of_inputs) +
                               " numbers in all inputs expected, found " +
                               std::to_string(of_inputs) + ", of them " +
                               std::to_string(element_count(largest_input->dims)) + " in " +
                               in_quotes(largest_input->name) + WITHOUT_PROOF);
    }
    int64_t all = 0;
    const LayerReport* largest = nullptr;
    for (const LayerReport& layer : conversion.layers) {
        all += layer.elements;
        if (largest == nullptr || layer.elements > largest->elements) largest = &layer;
    }
    if (all <= MOST_KEPT) return Status::success();
    return Status::failure("at most " + std::to_string(MOST_KEPT) +
                           " numbers in the tensors of all layers expected, found " +
                           std::to_string(all) + ", of them " + std::to_string(largest->elements) +
                           " in layer " + std::to_string(largest->id) + " of node " +
                           in_quotes(largest->node) + WITHOUT_PROOF);
}

std::map<std::string, Tensor> random_inputs(const Conversion& conversion, uint32_t seed) {
    std::map<std::string, Tensor> inputs;
    std::mt19937 engine(seed);
    for (const ModelNames::Tensor& input : conversion.names.inputs) {
        std::vector<float> values(static_cast<size_t>(element_count(input.dims)));
        for (float& value : values) {
            value = static_cast<float>(engine() >> 8) * 0x1p-23f - 1.0f;
        }
        inputs[input.name] = Tensor::of_floats(input.dims, std::move(values));
    }
    return inputs;
}

Status prove(const Graph& original, const Conversion& conversion, const std::string& model_path,
             const std::map<std::string, Tensor>& inputs, bool all_layers,
             const std::function<void(int)>& progress, Proof& proof) {
    proof = Proof();
    const auto step = [&](int done) {
        if (progress) progress(done);
    };
    try {
        Status status = require_room(conversion);
        if (!status) return status;
        // Of each run what is compared stays; a whole run may take gigabytes.
        std::set<std::string> compared;
        for (const ModelNames::Tensor& output : conversion.names.outputs) {
            compared.insert(output.name);
        }
        if (all_layers) {
            compared.insert(conversion.value_order.begin(), conversion.value_order.end());
        }
        const auto keep_compared = [&](Values& values) {
            for (auto at = values.begin(); at != values.end();) {
                at = compared.count(at->first) != 0 ? std::next(at) : values.erase(at);
            }
        };
        // The evaluator has limits, so a graph of huge tensors ends here.
        step(0);
        Values exact;
        status = evaluate_for_proof(original, inputs, exact);
        if (!status) return Status::failure("the graph cannot be evaluated: " + status.message());
        keep_compared(exact);
        step(1);
        EngineRun engine;
        status = engine.run(model_path, conversion, inputs);
        if (!status) return status;
        step(2);
        Values halves;
        status = evaluate_for_proof(conversion.rounded, inputs, halves);
        if (!status) {
            return Status::failure("the simplified graph cannot be evaluated: " + status.message());
        }
        Values shaken;
        {
            const Graph changed = perturbed(conversion.rounded, conversion.slack, halves, inputs);
            keep_compared(halves);
            status = evaluate_for_proof(changed, inputs, shaken);
            if (!status) return status;
            keep_compared(shaken);
        }
        step(3);
        std::map<std::string, double> explained;
        for (uint32_t seed = 1; seed <= HALF_DRAWS; ++seed) {
            Values noisy;
            status =
                evaluate_for_proof(with_weight_noise(original, HALF_REACH, seed), inputs, noisy);
            if (!status) return status;
            for (const auto& [name, tensor] : exact) {
                const auto found = noisy.find(name);
                if (found == noisy.end() || found->second.size() != tensor.size()) continue;
                double& most = explained[name];
                most = std::max(most,
                                difference_of(found->second.numbers(), tensor.numbers()).maximum);
            }
        }

        const double layers = static_cast<double>(conversion.layers.size());
        const auto prove_value = [&](const std::string& name, int layer, ValueProof& result) {
            std::vector<double> given;
            const Status taken = engine.values_of(layer, given);
            if (!taken) return taken;
            const std::vector<double> graph = numbers_of(exact, inputs, name);
            const std::vector<double> with_halves = numbers_of(halves, inputs, name);
            const std::vector<double> with_noise = numbers_of(shaken, inputs, name);
            if (given.size() != graph.size() || given.size() != with_halves.size()) {
                return Status::failure("the value " + in_quotes(name) + " has " +
                                       std::to_string(graph.size()) + " numbers, layer " +
                                       std::to_string(layer) + " gives " +
                                       std::to_string(given.size()));
            }
            result.name = name;
            result.layer = layer;
            for (const double value : graph) {
                if (std::isfinite(value))
                    result.largest = std::max(result.largest, std::fabs(value));
            }
            result.from_graph = difference_of(given, graph);
            result.by_halves = difference_of(with_halves, graph);
            result.unexplained = difference_of(given, with_halves).maximum;
            const double roundings =
                (ROUNDINGS_PER_LAYER * layers * FLOAT_UNIT + conversion.slack) * result.largest;
            result.halves_bound = HALF_MARGIN * explained[name] + roundings;
            result.bound = DRAWS * difference_of(with_noise, with_halves).maximum + roundings;
            return Status::success();
        };
        for (const ModelNames::Tensor& output : conversion.names.outputs) {
            ValueProof each;
            const std::vector<double> graph = numbers_of(exact, inputs, output.name);
            // Such a graph has no meaning that a model could be held against.
            if (std::any_of(graph.begin(), graph.end(), [](double v) { return std::isnan(v); })) {
                return Status::failure("the output " + in_quotes(output.name) +
                                       " is not a number in the graph");
            }
            status = prove_value(output.name, output.layer, each);
            if (!status) return status;
            if (!std::isfinite(each.bound) || !std::isfinite(each.halves_bound)) {
                return Status::failure("the output " + in_quotes(output.name) +
                                       " has no bound: with weights off by a rounding it is "
                                       "infinite or not a number");
            }
            status = engine.values_of(output.layer, each.numbers);
            if (!status) return status;
            proof.outputs.push_back(each);
        }
        if (all_layers) {
            for (const std::string& name : conversion.value_order) {
                if (exact.count(name) == 0 || halves.count(name) == 0) continue;
                ValueProof each;
                status = prove_value(name, conversion.value_layers.at(name), each);
                if (!status) return status;
                proof.layers.push_back(each);
            }
        }
        step(4);
    } catch (const std::bad_alloc&) {
        return Status::failure("out of memory");
    }
    return Status::success();
}

}  // namespace modelkit::onnx
