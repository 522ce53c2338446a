#include "modelkit/onnx/evaluator.h"

#include <algorithm>
#include <map>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "modelkit/onnx/evaluator_operators.h"

namespace modelkit::onnx {

namespace {

using evaluation::Call;
using evaluation::Refusal;
using Operation = void (*)(Call&);

constexpr int FIRST = 1;
constexpr int LAST = 1000;
constexpr size_t ANY = 1000000;

/// One form of an operator. `attributes` lists what it may have, as "name:kind", the kinds being
/// i, f, s, t for one number, text or tensor and is, fs, ss for lists.
struct Form {
    const char* name;
    int since;
    int until;
    Operation operation;
    size_t least_inputs;
    size_t most_inputs;
    const char* attributes;
};

constexpr char CONVOLUTION[] = "auto_pad:s dilations:is group:i kernel_shape:is pads:is strides:is";
constexpr char TRANSPOSED[] =
    "auto_pad:s dilations:is group:i kernel_shape:is output_padding:is output_shape:is pads:is "
    "strides:is";
constexpr char CONSTANT[] = "value:t value_float:f value_floats:fs value_int:i value_ints:is";
constexpr char LSTM[] =
    "activation_alpha:fs activation_beta:fs activations:ss clip:f direction:s hidden_size:i "
    "input_forget:i";
constexpr char LSTM_LAYOUT[] =
    "activation_alpha:fs activation_beta:fs activations:ss clip:f direction:s hidden_size:i "
    "input_forget:i layout:i";
constexpr char RESIZE[] =
    "coordinate_transformation_mode:s cubic_coeff_a:f exclude_outside:i extrapolation_value:f "
    "mode:s nearest_mode:s";

namespace op = evaluation;

const Form FORMS[] = {
    {"Abs", FIRST, LAST, op::abs, 1, 1, ""},
    {"Add", FIRST, LAST, op::add, 2, 2, ""},
    {"And", FIRST, LAST, op::logical_and, 2, 2, ""},
    {"AveragePool", FIRST, 9, op::average_pool, 1, 1,
     "auto_pad:s count_include_pad:i kernel_shape:is pads:is strides:is"},
    {"AveragePool", 10, LAST, op::average_pool, 1, 1,
     "auto_pad:s ceil_mode:i count_include_pad:i kernel_shape:is pads:is strides:is"},
    {"BatchNormalization", FIRST, 8, op::batch_normalization, 5, 5,
     "epsilon:f momentum:f spatial:i"},
    {"BatchNormalization", 9, 13, op::batch_normalization, 5, 5, "epsilon:f momentum:f"},
    {"BatchNormalization", 14, LAST, op::batch_normalization, 5, 5,
     "epsilon:f momentum:f training_mode:i"},
    {"Cast", FIRST, LAST, op::cast, 1, 1, "to:i"},
    {"Ceil", FIRST, LAST, op::ceil, 1, 1, ""},
    {"Clip", FIRST, 10, op::clip_by_attributes, 1, 1, "max:f min:f"},
    {"Clip", 11, LAST, op::clip, 1, 3, ""},
    {"Concat", FIRST, LAST, op::concat, 1, ANY, "axis:i"},
    {"Constant", FIRST, 11, op::constant, 0, 0, "value:t"},
    {"Constant", 12, LAST, op::constant, 0, 0, CONSTANT},
    {"ConstantOfShape", 9, LAST, op::constant_of_shape, 1, 1, "value:t"},
    {"Conv", FIRST, LAST, op::conv, 2, 3, CONVOLUTION},
    {"ConvTranspose", FIRST, LAST, op::conv_transpose, 2, 3, TRANSPOSED},
    {"DepthToSpace", FIRST, 10, op::depth_to_space, 1, 1, "blocksize:i"},
    {"DepthToSpace", 11, LAST, op::depth_to_space, 1, 1, "blocksize:i mode:s"},
    {"Div", FIRST, LAST, op::div, 2, 2, ""},
    {"Dropout", FIRST, 11, op::dropout, 1, 1, "ratio:f"},
    {"Dropout", 12, LAST, op::dropout, 1, 3, "seed:i"},
    {"Elu", FIRST, LAST, op::elu, 1, 1, "alpha:f"},
    {"Equal", FIRST, LAST, op::equal, 2, 2, ""},
    {"Exp", FIRST, LAST, op::exp, 1, 1, ""},
    {"Expand", 8, LAST, op::expand, 2, 2, ""},
    {"Flatten", FIRST, LAST, op::flatten, 1, 1, "axis:i"},
    {"Floor", FIRST, LAST, op::floor, 1, 1, ""},
    {"Gather", FIRST, LAST, op::gather, 2, 2, "axis:i"},
    {"Gemm", FIRST, 10, op::gemm, 3, 3, "alpha:f beta:f transA:i transB:i"},
    {"Gemm", 11, LAST, op::gemm, 2, 3, "alpha:f beta:f transA:i transB:i"},
    {"GlobalAveragePool", FIRST, LAST, op::global_average_pool, 1, 1, ""},
    {"GlobalMaxPool", FIRST, LAST, op::global_max_pool, 1, 1, ""},
    {"Greater", FIRST, LAST, op::greater, 2, 2, ""},
    {"HardSigmoid", FIRST, LAST, op::hard_sigmoid, 1, 1, "alpha:f beta:f"},
    {"HardSwish", 14, LAST, op::hard_swish, 1, 1, ""},
    {"Identity", FIRST, LAST, op::identity, 1, 1, ""},
    {"InstanceNormalization", FIRST, LAST, op::instance_normalization, 3, 3, "epsilon:f"},
    {"LSTM", FIRST, 13, op::lstm, 3, 8, LSTM},
    {"LSTM", 14, LAST, op::lstm, 3, 8, LSTM_LAYOUT},
    {"LeakyRelu", FIRST, LAST, op::leaky_relu, 1, 1, "alpha:f"},
    {"Less", FIRST, LAST, op::less, 2, 2, ""},
    {"Log", FIRST, LAST, op::log, 1, 1, ""},
    {"MatMul", FIRST, LAST, op::matmul, 2, 2, ""},
    {"Max", FIRST, LAST, op::max, 1, ANY, ""},
    {"MaxPool", FIRST, 9, op::max_pool, 1, 1,
     "auto_pad:s kernel_shape:is pads:is storage_order:i strides:is"},
    {"MaxPool", 10, LAST, op::max_pool, 1, 1,
     "auto_pad:s ceil_mode:i dilations:is kernel_shape:is pads:is storage_order:i strides:is"},
    {"Min", FIRST, LAST, op::min, 1, ANY, ""},
    {"Mul", FIRST, LAST, op::mul, 2, 2, ""},
    {"Neg", FIRST, LAST, op::neg, 1, 1, ""},
    {"Not", FIRST, LAST, op::logical_not, 1, 1, ""},
    {"Or", FIRST, LAST, op::logical_or, 2, 2, ""},
    {"PRelu", FIRST, LAST, op::prelu, 2, 2, ""},
    {"Pad", FIRST, 10, op::pad_by_attributes, 1, 1, "mode:s pads:is value:f"},
    {"Pad", 11, LAST, op::pad, 2, 3, "mode:s"},
    {"Pow", FIRST, LAST, op::pow, 2, 2, ""},
    {"Reciprocal", FIRST, LAST, op::reciprocal, 1, 1, ""},
    {"ReduceMean", FIRST, LAST, op::reduce_mean, 1, 1, "axes:is keepdims:i"},
    {"Relu", FIRST, LAST, op::relu, 1, 1, ""},
    {"Reshape", FIRST, 13, op::reshape, 2, 2, ""},
    {"Reshape", 14, LAST, op::reshape, 2, 2, "allowzero:i"},
    {"Resize", 10, 10, op::resize_by_scales, 2, 2, "mode:s"},
    {"Resize", 11, 12, op::resize, 3, 4, RESIZE},
    {"Resize", 13, LAST, op::resize, 1, 4, RESIZE},
    {"Shape", FIRST, 14, op::shape, 1, 1, ""},
    {"Shape", 15, LAST, op::shape, 1, 1, "end:i start:i"},
    {"Sigmoid", FIRST, LAST, op::sigmoid, 1, 1, ""},
    {"Size", FIRST, LAST, op::size, 1, 1, ""},
    {"Slice", FIRST, 9, op::slice_by_attributes, 1, 1, "axes:is ends:is starts:is"},
    {"Slice", 10, LAST, op::slice, 3, 5, ""},
    {"Softmax", FIRST, 12, op::softmax_of_rows, 1, 1, "axis:i"},
    {"Softmax", 13, LAST, op::softmax, 1, 1, "axis:i"},
    {"SpaceToDepth", FIRST, LAST, op::space_to_depth, 1, 1, "blocksize:i"},
    {"Split", FIRST, 12, op::split_by_attribute, 1, 1, "axis:i split:is"},
    {"Split", 13, LAST, op::split, 1, 2, "axis:i"},
    {"Sqrt", FIRST, LAST, op::sqrt, 1, 1, ""},
    {"Squeeze", FIRST, 12, op::squeeze_by_attribute, 1, 1, "axes:is"},
    {"Squeeze", 13, LAST, op::squeeze, 1, 2, ""},
    {"Sub", FIRST, LAST, op::sub, 2, 2, ""},
    {"Sum", FIRST, LAST, op::sum, 1, ANY, ""},
    {"Tanh", FIRST, LAST, op::tanh, 1, 1, ""},
    {"Transpose", FIRST, LAST, op::transpose, 1, 1, "perm:is"},
    {"Unsqueeze", FIRST, 12, op::unsqueeze_by_attribute, 1, 1, "axes:is"},
    {"Unsqueeze", 13, LAST, op::unsqueeze, 2, 2, ""},
    {"Upsample", FIRST, 8, op::upsample_by_attribute, 1, 1, "mode:s scales:fs"},
    {"Upsample", 9, 9, op::upsample, 2, 2, "mode:s"},
    {"Where", 9, LAST, op::where, 3, 3, ""},
};

const Form& form_of(const Node& node, int opset) {
    bool known = false;
    for (const Form& form : FORMS) {
        if (node.op_type != form.name) continue;
        if (opset >= form.since && opset <= form.until) return form;
        known = true;
    }
    throw Refusal{known ? "the operator is not part of operator set " + std::to_string(opset)
                        : "the operator is not supported"};
}

const char* kind_of(const Attribute& attribute) {
    switch (attribute.kind) {
        case Attribute::Kind::Float:
            return "f";
        case Attribute::Kind::Int:
            return "i";
        case Attribute::Kind::String:
            return "s";
        case Attribute::Kind::Tensor:
            return "t";
        case Attribute::Kind::Floats:
            return "fs";
        case Attribute::Kind::Ints:
            return "is";
        case Attribute::Kind::Strings:
            return "ss";
        case Attribute::Kind::Other:
            break;
    }
    return "?";
}

// An attribute that is unknown, or of another kind than it should be, must not be overlooked.
void check_attributes(const Node& node, const Form& form) {
    const std::string allowed = std::string(" ") + form.attributes + " ";
    for (const auto& [name, attribute] : node.attributes) {
        if (allowed.find(" " + name + ":" + kind_of(attribute) + " ") != std::string::npos)
            continue;
        const bool known = allowed.find(" " + name + ":") != std::string::npos;
        throw Refusal{"attribute " + in_quotes(name) +
                      (known ? " is of another kind than expected" : " is not supported")};
    }
}

// ONNX forbids both, and each says something else.
void check_padding(const Node& node) {
    const std::string mode = node.text("auto_pad", "NOTSET");
    const Attribute* pads = node.find("pads", Attribute::Kind::Ints);
    if (mode == "NOTSET" || pads == nullptr) return;
    throw Refusal{"attribute \"pads\" is " + text_of(pads->ints) + " beside \"auto_pad\" " +
                  in_quotes(mode) + ", expected one of them"};
}

// What the other code relies on: as many values as the shape says, in the type's own storage.
bool is_sound(const Tensor& tensor) {
    if (tensor.type == ElementType::Undefined) return false;
    const bool integers = std::holds_alternative<std::vector<int64_t>>(tensor.values);
    return integers == is_integral(tensor.type) &&
           element_count(tensor.dims) == static_cast<int64_t>(tensor.size());
}

Status take_inputs(const Graph& graph, const std::map<std::string, Tensor>& inputs,
                   std::map<std::string, Tensor>& values) {
    for (const ValueInfo& input : graph.inputs) {
        const auto found = inputs.find(input.name);
        const std::string named = "the input " + in_quotes(input.name);
        if (found == inputs.end()) return Status::failure(named + " is not given");
        const Tensor& tensor = found->second;
        if (!is_sound(tensor)) return Status::failure(named + " has no sound values");
        if (input.type != ElementType::Undefined &&
            is_integral(input.type) != is_integral(tensor.type)) {
            return Status::failure(named + " is of " + name_of(tensor.type) + ", expected " +
                                   name_of(input.type));
        }
        bool fits = !input.has_shape || input.dims.size() == tensor.dims.size();
        for (size_t i = 0; fits && input.has_shape && i < input.dims.size(); ++i)
            fits = input.dims[i] < 0 || input.dims[i] == tensor.dims[i];
        if (!fits) {
            return Status::failure(named + " has shape " + text_of(tensor.dims) + ", expected " +
                                   text_of(input.dims));
        }
        values[input.name] = tensor;
    }
    return Status::success();
}

void check_inputs(const Node& node, const Form& form) {
    size_t present = 0;
    for (size_t i = 0; i < node.inputs.size(); ++i)
        if (node.has_input(i)) present = i + 1;
    if (present >= form.least_inputs && node.inputs.size() <= form.most_inputs) return;
    std::string expected = std::to_string(form.least_inputs);
    if (form.most_inputs == ANY) {
        expected += " or more";
    } else if (form.most_inputs != form.least_inputs) {
        expected += " to " + std::to_string(form.most_inputs);
    }
    throw Refusal{"has " + std::to_string(node.inputs.size()) + " inputs, expected " + expected};
}

const Form& checked_form(const Node& node, int opset) {
    const Form& form = form_of(node, opset);
    check_attributes(node, form);
    check_padding(node);
    check_inputs(node, form);
    if (node.outputs.empty()) throw Refusal{"has no outputs"};
    return form;
}

// Whether a constant node computes in double: files hold floats unless they say so.
bool gives_doubles(const Node& node, const std::vector<const Tensor*>& inputs) {
    constexpr int64_t DOUBLE = 11;
    if (node.op_type == "Cast") return node.integer("to", 0) == DOUBLE;
    if (node.op_type == "ConstantOfShape") {
        const Attribute* value = node.find("value", Attribute::Kind::Tensor);
        return value != nullptr && value->tensor.type == ElementType::Double;
    }
    return std::any_of(inputs.begin(), inputs.end(), [](const Tensor* input) {
        return input != nullptr && input->type == ElementType::Double;
    });
}

Tensor as_floats(Tensor tensor) {
    std::vector<float> values(tensor.size());
    tensor.floats(0, 1, values.size(), values.data());
    return Tensor::of_floats(std::move(tensor.dims), std::move(values));
}

// `constants`: the values that were computed from constants and shapes so far.
void run(const Graph& graph, const Node& node, std::map<std::string, Tensor>& values,
         std::set<std::string>& constants, EvaluationLimits& left) {
    const Form& form = checked_form(node, graph.opset);
    std::vector<const Tensor*> inputs;
    bool constant = true;
    for (const std::string& name : node.inputs) {
        const Tensor* tensor = nullptr;
        if (const auto value = values.find(name); value != values.end()) {
            tensor = &value->second;
            constant = constant && constants.count(name) != 0;
        } else if (const auto weight = graph.initializers.find(name);
                   weight != graph.initializers.end()) {
            tensor = &weight->second;
        }
        if (!name.empty() && (tensor == nullptr || !is_sound(*tensor))) {
            throw Refusal{"reads " + in_quotes(name) + ", which has no sound values"};
        }
        inputs.push_back(name.empty() ? nullptr : tensor);
    }
    constant = constant || node.op_type == "Shape" || node.op_type == "Size";
    // A Constant of doubles hands its tensor out as it is, so the list of numbers is of floats.
    const bool doubles = node.op_type == "Constant"
                             ? node.find("value", Attribute::Kind::Tensor) != nullptr
                             : gives_doubles(node, inputs);
    Call call(node, graph.opset, std::move(inputs), left);
    form.operation(call);
    for (size_t i = 0; i < node.outputs.size(); ++i) {
        if (node.outputs[i].empty()) continue;
        if (call.outputs[i].type == ElementType::Undefined) {
            throw Refusal{"output " + std::to_string(i) + " is not supported"};
        }
        Tensor& result = call.outputs[i];
        if (constant) {
            constants.insert(node.outputs[i]);
            if (result.type == ElementType::Double && !doubles)
                result = as_floats(std::move(result));
        }
        values[node.outputs[i]] = std::move(result);
    }
}

Status failure_of(const Node& node, const std::string& reason) {
    return Status::failure("node " + in_quotes(label_of(node)) + " (" + printable(node.op_type) +
                           "): " + reason);
}

// The places of maxima are not evaluated. A name for them that nobody reads is no reason to refuse;
// of a graph without outputs all values are asked for.
bool names_places(const Node& node) {
    return node.op_type == "MaxPool" && node.has_output(1);
}

std::set<std::string> unread_places(const Graph& graph) {
    std::set<std::string> names;
    if (graph.outputs.empty()) return names;
    for (const Node& node : graph.nodes) {
        if (names_places(node)) names.insert(node.outputs[1]);
    }
    if (names.empty()) return names;
    for (const Node& node : graph.nodes) {
        for (const std::string& input : node.inputs) names.erase(input);
    }
    for (const ValueInfo& output : graph.outputs) names.erase(output.name);
    return names;
}

}  // namespace

Status evaluate(const Graph& graph, const std::map<std::string, Tensor>& inputs,
                std::map<std::string, Tensor>& values, const EvaluationLimits& limits) {
    EvaluationLimits left = limits;
    return evaluate_within(left, graph, inputs, values);
}

Status evaluate_within(EvaluationLimits& left, const Graph& graph,
                       const std::map<std::string, Tensor>& inputs,
                       std::map<std::string, Tensor>& values) {
    values.clear();
    const Status taken = take_inputs(graph, inputs, values);
    if (!taken) return taken;
    const std::set<std::string> unread = unread_places(graph);
    // Of a graph without outputs all is asked for.
    const std::vector<bool> needed =
        graph.outputs.empty() ? std::vector<bool>(graph.nodes.size(), true) : needed_nodes(graph);
    std::set<std::string> constants;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (!needed[i]) continue;
        const Node& node = graph.nodes[i];
        try {
            if (names_places(node) && unread.count(node.outputs[1]) != 0) {
                Node maxima = node;
                maxima.outputs.resize(1);
                run(graph, maxima, values, constants, left);
            } else {
                run(graph, node, values, constants, left);
            }
        } catch (const Refusal& refusal) {
            return failure_of(node, refusal.reason);
        } catch (const std::bad_alloc&) {
            return failure_of(node, "there is not enough memory");
        }
    }
    return Status::success();
}

Status check_forms(const Graph& graph) {
    for (const Node& node : graph.nodes) {
        try {
            checked_form(node, graph.opset);
        } catch (const Refusal& refusal) {
            return failure_of(node, refusal.reason);
        }
    }
    return Status::success();
}

}  // namespace modelkit::onnx
