#include "modelkit/onnx/converter.h"

#include <algorithm>
#include <new>
#include <utility>

#include "modelkit/onnx/evaluator.h"
#include "modelkit/onnx/lowering.h"
#include "modelkit/onnx/passes.h"
#include "modelkit/onnx/refusal.h"

namespace modelkit::onnx {

namespace {

constexpr size_t MOST_LAYERS = 65536;
// Weights that are spread over the groups of a convolution, or that only move numbers, stand in no
// ONNX file. All layers together may have these and 16 times the file's own.
constexpr int64_t MORE_WEIGHTS = int64_t{1} << 26;

Status resolve_shapes(const Graph& graph, const ConvertOptions& options, std::vector<Dims>& all) {
    for (const auto& [name, dims] : options.shapes) {
        const bool known =
            std::any_of(graph.inputs.begin(), graph.inputs.end(),
                        [&name = name](const ValueInfo& i) { return i.name == name; });
        if (!known) return Status::failure("has no input " + in_quotes(name));
    }
    for (const ValueInfo& input : graph.inputs) {
        Dims dims = input.dims;
        const auto given = options.shapes.find(input.name);
        if (given != options.shapes.end()) {
            const Dims& wanted = given->second;
            const bool fits = !input.has_shape ||
                              (wanted.size() == dims.size() &&
                               std::equal(wanted.begin(), wanted.end(), dims.begin(),
                                          [](int64_t a, int64_t b) { return b == -1 || a == b; }));
            if (!fits) {
                return Status::failure("the input " + in_quotes(input.name) + " has the shape " +
                                       text_of(dims) + ", asked for was " + text_of(wanted));
            }
            dims = wanted;
        } else if (!input.has_shape) {
            return Status::failure("the input " + in_quotes(input.name) +
                                   " has no shape: give one with --shape");
        }
        if (dims.size() > 1 && dims[0] == -1) dims[0] = 1;
        if (std::find(dims.begin(), dims.end(), -1) != dims.end()) {
            return Status::failure("the input " + in_quotes(input.name) + " leaves open " +
                                   text_of(dims) + ": give its shape with --shape");
        }
        all.push_back(dims);
    }
    return Status::success();
}

// A sixth, as in a HardSwish, is a half or what two halves make of it: for both engines 2^-12 off.
// The layers' output is that of the operator times a factor e near 1, and what follows works on
// that: after n such nodes a product is off by e^n, and a difference may be off by more than that
// of itself. The factors before and behind the clamp of a Clip do the same to its input. So the
// graph with the file's numbers gets the factors where they are, and a bound for what float
// arithmetic does has nothing to do with them.
class FactorShower {
public:
    explicit FactorShower(Graph& rounded) : rounded(rounded) {}

    void show(const std::map<size_t, double>& factors,
              const std::map<size_t, InputChange>& input_changes) {
        std::vector<Node> given = std::move(rounded.nodes);
        rounded.nodes.clear();
        for (size_t i = 0; i < given.size(); ++i) {
            Node& node = given[i];
            const auto change = input_changes.find(i);
            if (change != input_changes.end()) change_input(node, change->second);
            const auto factor = factors.find(i);
            const bool is_scaled = factor != factors.end() && factor->second != 1.0;
            const std::string output = node.outputs.empty() ? std::string() : node.outputs[0];
            if (is_scaled) node.outputs[0] = output + " before its factor";
            const std::string before = node.outputs.empty() ? std::string() : node.outputs[0];
            rounded.nodes.push_back(std::move(node));
            if (is_scaled) add("Mul", {before, number(output, factor->second)}, output);
        }
    }

private:
    void change_input(Node& node, const InputChange& change) {
        if (change.above == 1.0 && change.below == 1.0 && change.term == 0.0) return;
        const std::string name = node.outputs[0] + ", its input";
        const std::string parts[] = {name + " times a factor", name + " times both", name};
        add("Mul", {node.inputs[0], number(name, change.above)}, parts[0]);
        add("PRelu", {parts[0], number(name, change.below / change.above)}, parts[1]);
        add("Add", {parts[1], number(name, change.term)}, parts[2]);
        node.inputs[0] = name;
    }
    std::string number(const std::string& like, double value) {
        return add_initializer(rounded, like + " number", Tensor::of_doubles({}, {value}));
    }
    void add(const char* op_type, std::vector<std::string> inputs, const std::string& output) {
        Node made;
        made.op_type = op_type;
        made.inputs = std::move(inputs);
        made.outputs = {output};
        rounded.nodes.push_back(std::move(made));
    }

    Graph& rounded;
};

}  // namespace

Status convert(Graph graph, const ConvertOptions& options, Conversion& result) {
    result = Conversion();
    if (graph.inputs.empty()) return Status::failure("has no inputs");
    std::vector<Dims> shapes;
    const Status resolved = resolve_shapes(graph, options, shapes);
    if (!resolved) return resolved;
    // What no output comes from is of no concern, whatever it is.
    remove_unused(graph);
    // Attributes and inputs that an operator set does not define would be passed over in silence.
    const Status forms = check_forms(graph);
    if (!forms) return forms;
    try {
        result.notes = cast_notes(graph);
        ConstantFolder folder(graph);
        simplify(graph, folder);
        if (graph.nodes.size() > MOST_LAYERS) {
            return Status::failure("has " + std::to_string(graph.nodes.size()) +
                                   " nodes that compute, expected at most " +
                                   std::to_string(MOST_LAYERS));
        }
        ModelHeader header = options.header;
        for (const Dims& dims : shapes) {
            if (dims.size() != 4 || dims[2] < 1 || dims[3] < 1) continue;
            header.base_h = static_cast<unsigned int>(std::min<int64_t>(dims[2], 65535));
            header.base_w = static_cast<unsigned int>(std::min<int64_t>(dims[3], 65535));
            break;
        }
        if (options.keep_rounded) result.rounded = graph;
        Emitter emitter(header, options.engines, MORE_WEIGHTS + 16 * folder.own_elements());
        emitter.reserve(constant_elements(graph));
        Lowering lowering(graph, folder, emitter, options.keep_rounded ? &result.rounded : nullptr);
        const Status lowered = lowering.run(shapes);
        if (!lowered) return lowered;

        result.file = emitter.take_file();
        result.layers = emitter.layers();
        result.notes.insert(result.notes.end(), lowering.notes().begin(), lowering.notes().end());
        result.slack = lowering.slack();
        if (options.keep_rounded) {
            FactorShower(result.rounded).show(lowering.factors(), lowering.input_changes());
        }
        for (const LayerReport& layer : result.layers) result.names.layers[layer.id] = layer.node;
        const auto named = [](const std::vector<ValueInfo>& infos,
                              const std::unordered_map<std::string, Value>& values) {
            std::vector<ModelNames::Tensor> tensors;
            for (const ValueInfo& info : infos) {
                const Value& value = values.at(info.name);
                tensors.push_back({value.blob.layer, value.dims, info.name});
            }
            return tensors;
        };
        result.names.inputs = named(graph.inputs, lowering.values());
        result.names.outputs = named(graph.outputs, lowering.outputs());
        for (const auto& [name, value] : lowering.values()) {
            if (value.zero_border != 0) continue;
            result.value_layers[name] = value.blob.layer;
            result.value_dims[name] = value.dims;
            result.value_order.push_back(name);
        }
        std::sort(result.value_order.begin(), result.value_order.end(),
                  [&](const std::string& a, const std::string& b) {
                      const int x = result.value_layers[a];
                      const int y = result.value_layers[b];
                      return x != y ? x < y : a < b;
                  });
    } catch (const Refusal& refusal) {
        result = Conversion();
        return Status::failure(refusal.text);
    } catch (const std::bad_alloc&) {
        result = Conversion();
        return Status::failure("out of memory");
    }
    return Status::success();
}

}  // namespace modelkit::onnx
