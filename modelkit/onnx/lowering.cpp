#include "modelkit/onnx/lowering.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <utility>

#include "modelkit/onnx/half_factors.h"

namespace modelkit::onnx {

namespace {

// A layer that only moves numbers may need a weight for each pair of its ends; beyond this a file
// would be mostly zeros.
constexpr int64_t MOST_MOVING_WEIGHTS = int64_t{1} << 24;
// What is put together line by line has a layer for each piece, on as many numbers as the whole
// has.
constexpr int64_t MOST_PIECES = 1024;
constexpr int64_t MOST_INPUTS = int64_t{1} << 28;

}  // namespace

size_t axis_of(int64_t axis, size_t rank) {
    const auto size = static_cast<int64_t>(rank);
    require(axis >= -size && axis < size, "axis " + std::to_string(axis) + " of a tensor of " +
                                              std::to_string(rank) + " dimensions");
    return static_cast<size_t>(axis < 0 ? axis + size : axis);
}

int small(int64_t value, const char* what) {
    require(value >= 0 && value <= 65535,
            std::string(what) + " of 0 to 65535 expected, found " + std::to_string(value));
    return static_cast<int>(value);
}

void require_pieces(int64_t count) {
    require(count <= MOST_PIECES,
            "at most " + std::to_string(MOST_PIECES) +
                " pieces of rows or columns to put together expected, found " +
                std::to_string(count));
}

std::string number_text(double number) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", number);
    return text;
}

std::vector<float> floats_of(const Tensor& tensor) {
    std::vector<float> values(tensor.size());
    tensor.floats(0, 1, values.size(), values.data());
    return values;
}

WeightRows all_of(size_t length, float number) {
    return [=](size_t, float* to) { std::fill_n(to, length, number); };
}

Lowering::Lowering(Graph& graph, ConstantFolder& folder, Emitter& emitter, Graph* rounded)
    : graph(graph), folder(folder), emitter(emitter), rounded(rounded), uses(graph) {}

const std::unordered_map<std::string, Lowering::Handler>& Lowering::handlers() {
    static const std::unordered_map<std::string, Handler> all = {
        {"Conv", &Lowering::conv},
        {"ConvTranspose", &Lowering::conv_transpose},
        {"Gemm", &Lowering::gemm},
        {"MatMul", &Lowering::matmul},
        {"MaxPool", &Lowering::max_pool},
        {"AveragePool", &Lowering::average_pool},
        {"GlobalAveragePool", &Lowering::global_pool},
        {"GlobalMaxPool", &Lowering::global_pool},
        {"ReduceMean", &Lowering::reduce_mean},
        {"Relu", &Lowering::unary},
        {"Sigmoid", &Lowering::unary},
        {"Tanh", &Lowering::unary},
        {"LeakyRelu", &Lowering::leaky_relu},
        {"PRelu", &Lowering::leaky_relu},
        {"Clip", &Lowering::clip},
        {"HardSigmoid", &Lowering::hard_sigmoid},
        {"HardSwish", &Lowering::hard_swish},
        {"Softmax", &Lowering::softmax},
        {"BatchNormalization", &Lowering::affine_node},
        {"Neg", &Lowering::affine_node},
        {"Abs", &Lowering::absolute},
        {"Add", &Lowering::binary},
        {"Sub", &Lowering::binary},
        {"Mul", &Lowering::binary},
        {"Div", &Lowering::binary},
        {"Sum", &Lowering::binary},
        {"Concat", &Lowering::concat},
        {"Resize", &Lowering::resize},
        {"Upsample", &Lowering::resize},
        {"DepthToSpace", &Lowering::depth_to_space},
        {"SpaceToDepth", &Lowering::space_to_depth},
        {"Identity", &Lowering::hand_on},
        {"Dropout", &Lowering::hand_on},
        {"Cast", &Lowering::hand_on},
        {"Reshape", &Lowering::reshape},
        {"Flatten", &Lowering::flatten},
        {"Squeeze", &Lowering::squeeze},
        {"Unsqueeze", &Lowering::unsqueeze},
        {"Transpose", &Lowering::transpose},
        {"Pad", &Lowering::pad},
        {"Slice", &Lowering::slice},
        {"Gather", &Lowering::gather},
        {"Split", &Lowering::split},
        {"LSTM", &Lowering::lstm},
    };
    return all;
}

Status Lowering::run(const std::vector<Dims>& inputs) {
    std::string where = "the inputs";
    find_sequences();
    try {
        for (size_t i = 0; i < graph.inputs.size(); ++i) {
            where = "the input " + in_quotes(graph.inputs[i].name);
            lower_input(graph.inputs[i], inputs[i]);
        }
        for (size_t i = 0; i < graph.nodes.size(); ++i) {
            if (done.count(i) != 0) continue;
            where = "node " + in_quotes(label_of(graph.nodes[i])) + " (" +
                    printable(graph.nodes[i].op_type) + ")";
            lower_node(i);
        }
        for (const ValueInfo& output : graph.outputs) {
            where = "the output " + in_quotes(output.name);
            require(made.count(output.name) != 0, "is a constant, which no layer gives");
            check_output(output, made.at(output.name).dims);
        }
        where = "the outputs";
        finish_outputs();
    } catch (const Refusal& refusal) {
        return Status::failure(where + ": " + refusal.text);
    } catch (const std::bad_alloc&) {
        return Status::failure(where + ": out of memory");
    }
    return Status::success();
}

// What LSTM read, also in other dimensions.
void Lowering::find_sequences() {
    static const std::set<std::string> aliases = {"Identity", "Dropout", "Cast",      "Reshape",
                                                  "Flatten",  "Squeeze", "Unsqueeze", "Transpose"};
    for (size_t i = graph.nodes.size(); i-- > 0;) {
        const Node& each = graph.nodes[i];
        const bool reads =
            each.op_type == "LSTM" || (aliases.count(each.op_type) != 0 && each.has_output(0) &&
                                       sequences.count(each.outputs[0]) != 0);
        if (reads && each.has_input(0)) sequences.insert(each.inputs[0]);
    }
}

void Lowering::lower_input(const ValueInfo& info, const Dims& dims) {
    emitter.begin_node(printable(info.name));
    require(!is_integral(info.type), std::string("a tensor of numbers with a fraction expected, "
                                                 "found ") +
                                         name_of(info.type));
    for (const int64_t size : dims) {
        require(size >= 1 && size <= 65535,
                "dimensions of 1 to 65535 expected, found " + text_of(dims));
    }
    const int64_t count = element_count(dims);
    require(count >= 1 && count <= MOST_INPUTS,
            "at most 268435456 numbers expected, found " + text_of(dims));
    if (dims.size() == 4) {
        require(dims[0] == 1, "a batch of 1 expected, found " + text_of(dims));
        give(info.name, dims, emitter.input(extent_of(dims)));
        return;
    }
    // Without rows and columns there is no size that scales: the file gets the numbers.
    std::vector<int> kept;
    for (const int64_t size : dims) {
        if (size != 1 || kept.empty()) kept.push_back(static_cast<int>(size));
        if (kept.size() == 2 && kept[0] == 1) kept.erase(kept.begin());
    }
    require(!kept.empty() && kept.size() <= 2 && dims.size() <= 3,
            "a tensor of 1 to 4 dimensions and a batch of 1 expected, found " + text_of(dims));
    // One row of numbers, or time steps of one number each.
    const bool steps = dims.back() == 1 && sequences.count(info.name) != 0;
    if (kept.size() == 1) kept.insert(steps ? kept.end() : kept.begin(), 1);
    give(info.name, dims, emitter.tensor_input(kept));
}

void Lowering::lower_node(size_t index) {
    at = index;
    emitter.begin_node(label_of(node()));
    if (fold_shape()) return;
    const auto handler = handlers().find(node().op_type);
    require(handler != handlers().end(), "the operator is not supported");
    require(node().has_output(0) || node().op_type == "LSTM", "an output expected");
    // What computes with constants alone is folded; where that failed, no layer can help.
    bool reads_value = false;
    for (const std::string& input : node().inputs) reads_value |= made.count(input) != 0;
    require(reads_value, "constants that cannot be computed");
    (this->*handler->second)();
    folder.release_inputs(graph.nodes[index]);
}

// Shapes are known here, so what was computed from them is constant.
bool Lowering::fold_shape() {
    const Node& current = node();
    if ((current.op_type == "Shape" || current.op_type == "Size") && current.has_input(0) &&
        made.count(current.inputs[0]) != 0) {
        Dims dims = made[current.inputs[0]].dims;
        if (current.op_type == "Size") {
            graph.initializers[current.outputs[0]] = Tensor::of_integers({}, {element_count(dims)});
        } else {
            const auto rank = static_cast<int64_t>(dims.size());
            const auto clamped = [&](int64_t v) {
                return std::clamp<int64_t>(v < 0 ? v + rank : v, 0, rank);
            };
            const int64_t start = clamped(current.integer("start", 0));
            const int64_t end = clamped(current.integer("end", rank));
            dims = end > start ? Dims(dims.begin() + start, dims.begin() + end) : Dims();
            graph.initializers[current.outputs[0]] =
                Tensor::of_integers({static_cast<int64_t>(dims.size())}, dims);
        }
    } else if (!folder.fold(current)) {
        return false;
    }
    return true;
}

// What the file says of an output is the only word on what its maker took the graph for: where that
// is something else, so are the nodes. Sizes that are left open fit any.
void Lowering::check_output(const ValueInfo& info, const Dims& dims) {
    require(info.type == ElementType::Undefined || !is_integral(info.type),
            std::string("a declared type of numbers with a fraction expected, found ") +
                name_of(info.type));
    const bool fits =
        !info.has_shape || (info.dims.size() == dims.size() &&
                            std::equal(dims.begin(), dims.end(), info.dims.begin(),
                                       [](int64_t a, int64_t b) { return b == -1 || a == b; }));
    require(fits, "a declared shape of " + text_of(dims) + ", which the graph gives, expected, " +
                      "found " + text_of(info.dims));
}

// The tensor of an output is what the graph says, in as many dimensions as the engine can tell.
void Lowering::finish_outputs() {
    std::set<int> inputs;
    for (const ValueInfo& input : graph.inputs) inputs.insert(made.at(input.name).blob.layer);
    for (const ValueInfo& output : graph.outputs) {
        Value value = made.at(output.name);
        const Extent& size = value.blob.size;
        const bool is_flat = value.dims.size() <= 2 && size.h * size.w > 1 && size.c > 1 &&
                             (value.dims.size() < 2 || value.dims[0] == 1);
        if (is_flat) {
            emitter.begin_node(printable(output.name));
            value.blob = emitter.row(value.blob);
        }
        if (inputs.count(value.blob.layer) != 0) {
            emitter.begin_node(printable(output.name));
            Affine used;
            value.blob = emitter.affine(value.blob, {{1.0}, {0.0}}, used);
        }
        finished[output.name] = value;
    }
    // An input that is an output as well has two layers under one name: the value keeps the
    // input's.
    for (const auto& [name, value] : finished) {
        if (inputs.count(made.at(name).blob.layer) == 0) made[name] = value;
    }
}

const Value& Lowering::value(size_t input) const {
    require(node().has_input(input), "input " + std::to_string(input) + " expected, found none");
    const auto found = made.find(node().inputs[input]);
    require(found != made.end(),
            "input " + std::to_string(input) + " is expected to be computed, found a constant");
    require(found->second.zero_border == 0,
            "a value without a border expected, found padding that only a pooling takes");
    return found->second;
}

const Tensor* Lowering::constant(size_t input) const {
    if (!node().has_input(input)) return nullptr;
    const auto found = graph.initializers.find(node().inputs[input]);
    return found == graph.initializers.end() ? nullptr : &found->second;
}

const Tensor& Lowering::required(size_t input, const char* what) const {
    require(node().has_input(input), std::string(what) + " expected, found none");
    const Tensor* tensor = constant(input);
    require(tensor != nullptr, std::string(what) + " expected to be constant");
    return *tensor;
}

void Lowering::give(const std::string& name, const Dims& dims, const Blob& blob) {
    require(element_count(dims) == blob.size.elements(),
            "a tensor of " + text_of(dims) + " expected, the layers give " + text_of(blob.size));
    made[name] = Value{dims, blob, 0};
}

void Lowering::alias(Dims dims) {
    const Value& from = value(0);
    require(element_count(dims) == element_count(from.dims),
            "a shape for " + std::to_string(element_count(from.dims)) +
                " numbers expected, found " + text_of(dims));
    give(dims, from.blob);
}

void Lowering::note(const std::string& text) {
    all_notes.push_back("node " + in_quotes(label_of(node())) + ": " + text);
}

int Lowering::activation_kind(const Graph& graph, const Node& node) {
    const std::string& type = node.op_type;
    if (type == "Relu") return ActivationType_ReLU;
    if (type == "Sigmoid") return ActivationType_Sigmoid;
    if (type == "Tanh") return ActivationType_Tanh;
    if (type == "LeakyRelu") {
        const double alpha = node.number("alpha", static_cast<double>(0.01f));
        return alpha == static_cast<double>(0.1f) ? ActivationType_LeakyReLU : 0;
    }
    if (type != "Clip") return 0;
    double low = -std::numeric_limits<double>::infinity();
    double high = std::numeric_limits<double>::infinity();
    if (graph.opset < 11) {
        low = node.number("min", low);
        high = node.number("max", high);
        if (low <= static_cast<double>(-std::numeric_limits<float>::max())) low = -INFINITY;
        if (high >= static_cast<double>(std::numeric_limits<float>::max())) high = INFINITY;
    } else {
        for (size_t i = 1; i <= 2; ++i) {
            if (!node.has_input(i)) continue;
            const auto found = graph.initializers.find(node.inputs[i]);
            if (found == graph.initializers.end() || found->second.size() != 1) return 0;
            (i == 1 ? low : high) = found->second.number(0);
        }
    }
    if (low == 0.0 && high == 6.0) return ActivationType_ReLU6;
    if (low == 0.0 && high >= static_cast<double>(std::numeric_limits<float>::max())) {
        return ActivationType_ReLU;
    }
    return 0;
}

std::set<int> Lowering::fusable(std::initializer_list<int> on_gpu) const {
    if (emitter.for_gpu()) return on_gpu;
    return {ActivationType_ReLU, ActivationType_Tanh, ActivationType_Sigmoid,
            ActivationType_LeakyReLU, ActivationType_ReLU6};
}

Lowering::Fused Lowering::fuse(const std::set<int>& allowed) {
    return fuse(node().outputs[0], allowed);
}

Lowering::Fused Lowering::fuse(const std::string& output, const std::set<int>& allowed) {
    const std::optional<size_t> reader = uses.sole_reader(output);
    if (!reader) return {0, output};
    const Node& next = graph.nodes[*reader];
    const int kind = activation_kind(graph, next);
    if (kind == 0 || allowed.count(kind) == 0 || next.inputs[0] != output) return {0, output};
    if (kind == ActivationType_Tanh) {
        all_notes.push_back("node " + in_quotes(label_of(next)) +
                            ": the engine's Tanh gives NaN where its input is beyond 88.7");
    }
    done.insert(*reader);
    return {kind, next.outputs[0]};
}

void Lowering::show_halves(size_t input, double factor) {
    if (rounded == nullptr) return;
    const Tensor& tensor = required(input, "weights");
    std::vector<double> values(tensor.size());
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = as_half(static_cast<float>(tensor.number(i) * factor)) / factor;
    }
    show_tensor(input, Tensor::of_doubles(tensor.dims, std::move(values)));
}

void Lowering::show_tensor(size_t input, Tensor tensor) {
    if (rounded == nullptr) return;
    Node& shown = rounded->nodes[at];
    const std::string name =
        add_initializer(*rounded, shown.inputs[input] + " rounded", std::move(tensor));
    shown.inputs[input] = name;
}

void Lowering::show_number(const std::string& attribute, double value) {
    if (rounded == nullptr) return;
    Attribute& shown = rounded->nodes[at].attributes[attribute];
    shown.kind = Attribute::Kind::Float;
    shown.floats = {value};
}

Blob Lowering::scaled(const Blob& bottom, double factor) {
    Affine used;
    const Blob blob = emitter.affine(bottom, {{factor}, {0.0}}, used);
    own_factors.try_emplace(at, 1.0).first->second *= used.scale[0] / factor;
    return blob;
}

// Only a factor: it changes each number by a share of itself, which is what `slack` can say. A term
// that is off is off for small numbers as for large ones, so terms have to be shown.
Blob Lowering::scaled_part(const Blob& bottom, double factor) {
    Affine used;
    const Blob blob = emitter.affine(bottom, {{factor}, {0.0}}, used);
    unshown += std::fabs(used.scale[0] / factor - 1.0);
    return blob;
}

// One picture: the batch goes, a missing row dimension is 1.
Extent Lowering::extent_of(const Dims& dims) {
    if (dims.size() == 4 && dims[0] == 1) {
        return {small(dims[1], "channels"), small(dims[2], "rows"), small(dims[3], "columns")};
    }
    if (dims.size() == 3 && dims[0] == 1) {
        return {small(dims[1], "channels"), 1, small(dims[2], "columns")};
    }
    if (dims.size() == 2 && dims[0] == 1) return {small(dims[1], "channels"), 1, 1};
    refuse("a tensor of a batch of 1, channels, rows and columns expected, found " + text_of(dims));
}

Blob Lowering::map_of(const Value& value) {
    const Extent wanted = extent_of(value.dims);
    Blob blob = value.blob;
    if (blob.size == wanted) return blob;
    if (wanted.h == 1 && wanted.w == 1) {
        blob = channels_of(blob);
    } else if (wanted.h == 1) {
        blob = rows_of(blob, wanted.c);
    }
    if (blob.size.c == wanted.c && blob.size != wanted) blob = in_rows(blob, wanted.h);
    require(blob.size == wanted,
            "a tensor of " + text_of(wanted) + " expected, found the numbers divided as " +
                text_of(value.blob.size) + ", and the engines reshape to rows only");
    return blob;
}

// The pixels of each channel in so many rows: the lines one behind the other, then cut again.
Blob Lowering::in_rows(const Blob& blob, int rows) {
    const Extent& size = blob.size;
    if (size.h == rows) return blob;
    if (size.c == 1 && rows == 1) return emitter.row(blob);
    if (size.c == 1) return pick_channels(in_rows(pick_channels(blob, {0, 0}), rows), {0});
    require(int64_t{size.h} * size.w % rows == 0,
            "pixels for " + std::to_string(rows) + " rows expected, found " + text_of(size));
    std::vector<Blob> parts;
    if (size.h > 1) {
        require_pieces(size.h);
        for (int i = 0; i < size.h; ++i) {
            parts.push_back(pad_or_crop(blob, -i, 0, i + 1 - size.h, 0));
        }
        return in_rows(join(parts, 2), rows);
    }
    require_pieces(rows);
    const int width = size.w / rows;
    for (int i = 0; i < rows; ++i) {
        parts.push_back(pad_or_crop(blob, 0, -i * width, 0, (i + 1) * width - size.w));
    }
    return join(parts, 1);
}

// All numbers as channels: a convolution over the whole of a tensor, each output one of the inputs.
Blob Lowering::channels_of(const Blob& blob) {
    const Extent& size = blob.size;
    if (size.h == 1 && size.w == 1) return blob;
    const int64_t count = size.elements();
    require(count * count <= MOST_MOVING_WEIGHTS,
            "at most 4096 numbers to make channels of, found " + std::to_string(count));
    const auto pixels = static_cast<size_t>(size.h) * static_cast<size_t>(size.w);
    const auto channels = static_cast<size_t>(size.c);
    const auto weights = [=](size_t row, float* to) {
        const size_t number = row / pixels;
        std::fill_n(to, channels, 0.0f);
        if (number % pixels == row % pixels) to[number / pixels] = 1.0f;
    };
    Window window;
    window.kernel_w = window.stride_w = size.w;
    window.kernel_h = window.stride_h = size.h;
    Blob result = emitter.conv(blob, small(count, "channels"), window, weights, {}, 0);
    result.range = blob.range;
    return result;
}

// The numbers as `rows` channels, whose pixels lie in ONNX's order however they are divided.
Blob Lowering::rows_of(const Blob& blob, int rows) {
    const int64_t count = blob.size.elements();
    if (rows == 1) return blob.size.c == 1 && blob.size.h == 1 ? blob : emitter.row(blob);
    if (blob.size.c == rows) return blob;
    if (count == rows) return channels_of(blob);
    const int64_t length = count / rows;
    require(count % rows == 0 && blob.size.h == 1 && blob.size.w == 1,
            "a tensor of " + std::to_string(rows) + " rows expected, found " + text_of(blob.size) +
                ", and the engines reshape to one row only");
    // A square number of channels becomes a square of pixels, whose lines lie one behind the other.
    const int side = static_cast<int>(std::lround(std::sqrt(static_cast<double>(length))));
    if (int64_t{side} * side == length && side <= 255) {
        return emitter.pixel_shuffle(blob, side, true);
    }
    return spread(blob, rows, length);
}

// Channels as rows of any length: each paints its number at its own place of a line of zeros, and
// the lines of a row are added up.
Blob Lowering::spread(const Blob& blob, int rows, int64_t length) {
    const int64_t weights = 2 * (length + 1) * blob.size.c + int64_t{rows} * blob.size.c;
    require(weights <= MOST_MOVING_WEIGHTS,
            "at most " + std::to_string(MOST_MOVING_WEIGHTS) + " weights to make " +
                std::to_string(rows) + " rows of " + std::to_string(length) +
                " numbers of channels expected, found " + std::to_string(weights));
    // The engine's kernel begins one pixel ahead of what it leaves.
    Window window;
    window.kernel_w = small(length + 1, "a row");
    window.kernel_h = 2;
    window.stride_w = small(length, "a row");
    window.pad_h = window.pad_w = 1;
    const auto width = static_cast<size_t>(length);
    const auto painted = [=](size_t channel, float* to) {
        std::fill_n(to, 2 * (width + 1), 0.0f);
        to[width + 1 + 1 + channel % width] = 1.0f;
    };
    const auto channels = static_cast<size_t>(blob.size.c);
    const auto added = [=](size_t row, float* to) {
        std::fill_n(to, channels, 0.0f);
        std::fill_n(to + row * width, width, 1.0f);
    };
    const Blob lines = emitter.depthwise_deconvolution(blob, window, painted, {});
    Blob result = emitter.conv(lines, rows, Window(), added, {}, 0);
    result.range = blob.range;
    return result;
}

// A depthwise convolution with a single tap: out[y] = in[y - begin].
Blob Lowering::pad_or_crop(Blob blob, int top, int left, int bottom, int right) {
    if (top == 0 && left == 0 && bottom == 0 && right == 0) return blob;
    const bool rows = top != 0 || bottom != 0;
    const bool columns = left != 0 || right != 0;
    const auto plan = [](int begin, int end, int& pad, int& kernel) {
        pad = std::max({begin, end, 0});
        kernel = 2 * pad - begin - end + 1;
    };
    int pad_h = 0, pad_w = 0, kernel_h = 1, kernel_w = 1;
    plan(top, bottom, pad_h, kernel_h);
    plan(left, right, pad_w, kernel_w);
    if (rows && columns && int64_t{kernel_h} * kernel_w > 64) {
        return pad_or_crop(pad_or_crop(blob, top, 0, bottom, 0), 0, left, 0, right);
    }
    const size_t taps = static_cast<size_t>(kernel_h) * static_cast<size_t>(kernel_w);
    require(static_cast<int64_t>(taps) * blob.size.c <= 4 * MOST_MOVING_WEIGHTS,
            "at most " + std::to_string(4 * MOST_MOVING_WEIGHTS) + " weights to pad " +
                text_of(blob.size) + " or to leave pixels out expected, found " +
                std::to_string(static_cast<int64_t>(taps) * blob.size.c));
    const auto tap = static_cast<size_t>((pad_h - top) * kernel_w + (pad_w - left));
    const auto all = static_cast<size_t>(blob.size.c);
    const auto weights = [=](size_t row, float* to) {
        std::fill_n(to, all, row == tap ? 1.0f : 0.0f);
    };
    Window window;
    window.kernel_w = kernel_w;
    window.kernel_h = kernel_h;
    window.pad_w = pad_w;
    window.pad_h = pad_h;
    const Range range = pad_h > 0 || pad_w > 0 ? blob.range.with(0.0) : blob.range;
    blob = emitter.depthwise(blob, 1, window, weights, {});
    blob.range = range;
    return blob;
}

void Lowering::expect_room_to_pick(const Blob& blob, int64_t channels) const {
    require(channels <= MOST_MOVING_WEIGHTS / blob.size.c,
            "at most " + std::to_string(MOST_MOVING_WEIGHTS) +
                " weights to move channels expected, found " + std::to_string(channels) +
                " channels of " + std::to_string(blob.size.c));
}

Blob Lowering::pick_channels(const Blob& blob, const std::vector<int>& channels) {
    expect_room_to_pick(blob, static_cast<int64_t>(channels.size()));
    bool in_place = static_cast<int>(channels.size()) == blob.size.c;
    const auto from = static_cast<size_t>(blob.size.c);
    const auto weights = [&](size_t row, float* to) {
        std::fill_n(to, from, 0.0f);
        to[channels[row]] = 1.0f;
    };
    for (size_t i = 0; i < channels.size(); ++i) {
        in_place = in_place && channels[i] == static_cast<int>(i);
    }
    if (in_place) return blob;
    Blob result = emitter.conv(blob, static_cast<int>(channels.size()), Window(), weights, {}, 0);
    result.range = blob.range;
    return result;
}

Blob Lowering::join(const std::vector<Blob>& blobs, int axis) {
    std::vector<Blob> parts = blobs;
    std::vector<Blob> next;
    // Of channels only the first tensor must have several, so the turns start with it.
    while (axis == 0 && parts.size() > 1) {
        const size_t count = std::min<size_t>(parts.size(), ZQ_MAX_BOTTOMS);
        const auto end = parts.begin() + static_cast<std::ptrdiff_t>(count);
        next.assign(1, joined({parts.begin(), end}, axis));
        next.insert(next.end(), end, parts.end());
        parts.swap(next);
    }
    // Lines in levels: in turns each of hundreds of joins would hold nearly all of them.
    if (axis != 0) require_pieces(static_cast<int64_t>(blobs.size()));
    while (parts.size() > 1) {
        next.clear();
        for (size_t i = 0; i < parts.size(); i += ZQ_MAX_BOTTOMS) {
            const size_t count = std::min<size_t>(parts.size() - i, ZQ_MAX_BOTTOMS);
            const auto begin = parts.begin() + static_cast<std::ptrdiff_t>(i);
            next.push_back(joined({begin, begin + static_cast<std::ptrdiff_t>(count)}, axis));
        }
        parts.swap(next);
    }
    return parts[0];
}

Blob Lowering::joined(const std::vector<Blob>& first, int axis) {
    if (first.size() == 1) return first[0];
    Extent size = first[0].size;
    int& side = axis == 0 ? size.c : axis == 1 ? size.h : size.w;
    int64_t sum = 0;
    for (const Blob& blob : first) {
        sum += axis == 0 ? blob.size.c : axis == 1 ? blob.size.h : blob.size.w;
    }
    side = small(sum, "a side");
    // The engine counts the axes of the first tensor, and one channel is none.
    require(first[0].size.c > 1,
            "a first tensor of several channels expected, found " + text_of(first[0].size));
    return emitter.concat(first, axis, size);
}

// Rows or columns of a tensor in another order, some left out or taken again.
Blob Lowering::gather_lines(const Blob& blob, bool rows, const std::vector<int>& lines) {
    if (blob.size.c == 1) {
        // One channel joins otherwise than several.
        const Blob two = pick_channels(blob, {0, 0});
        return pick_channels(gather_lines(two, rows, lines), {0});
    }
    const int count = rows ? blob.size.h : blob.size.w;
    int64_t pieces = 1;
    for (size_t i = 1; i < lines.size(); ++i) pieces += lines[i] != lines[i - 1] + 1 ? 1 : 0;
    require_pieces(pieces);
    std::vector<Blob> parts;
    for (size_t i = 0; i < lines.size();) {
        size_t end = i + 1;
        while (end < lines.size() && lines[end] == lines[end - 1] + 1) ++end;
        const int before = lines[i];
        const int behind = count - lines[end - 1] - 1;
        const bool again = end == i + 1 && i > 0 && lines[i] == lines[i - 1] &&
                           (rows ? parts.back().size.h : parts.back().size.w) == 1;
        parts.push_back(again  ? parts.back()
                        : rows ? pad_or_crop(blob, -before, 0, -behind, 0)
                               : pad_or_crop(blob, 0, -before, 0, -behind));
        i = end;
    }
    return join(parts, rows ? 1 : 2);
}

// Every pixel as a block: a transposed convolution of ones. The engine cuts the margin that it
// adds.
Blob Lowering::repeat(Blob blob, int times_y, int times_x) {
    if (times_y == 1 && times_x == 1) return blob;
    const bool even = times_y == times_x;
    if (even && (times_y == 2 || times_y == 4))
        return emitter.upsampling(blob, times_y, false, false);
    if (even && times_y == 8) return repeat(repeat(blob, 4, 4), 2, 2);
    Window window;
    window.kernel_w = small(int64_t{times_x} + 1, "a factor");
    window.kernel_h = small(int64_t{times_y} + 1, "a factor");
    window.stride_w = times_x;
    window.stride_h = times_y;
    window.pad_w = window.pad_h = 1;
    const size_t taps = static_cast<size_t>(window.kernel_w) * static_cast<size_t>(window.kernel_h);
    require(static_cast<int64_t>(taps) * blob.size.c <= MOST_MOVING_WEIGHTS,
            "at most " + std::to_string(MOST_MOVING_WEIGHTS) + " weights to repeat " +
                text_of(blob.size) + " expected, found " +
                std::to_string(static_cast<int64_t>(taps) * blob.size.c) + " for " +
                std::to_string(times_y) + " by " + std::to_string(times_x) + " times");
    const auto width = static_cast<size_t>(window.kernel_w);
    const auto weights = [=](size_t, float* to) {
        for (size_t i = 0; i < taps; ++i) to[i] = i >= width && i % width > 0 ? 1.0f : 0.0f;
    };
    const Range range = blob.range;
    blob = emitter.depthwise_deconvolution(blob, window, weights, {});
    blob.range = range;
    return blob;
}

Blob Lowering::broadcast(Blob blob, const Extent& size) {
    if (blob.size.c != size.c) {
        require(blob.size.c == 1, "tensors of one size expected, found " + text_of(blob.size) +
                                      " and " + text_of(size));
        blob = pick_channels(blob, std::vector<int>(static_cast<size_t>(size.c), 0));
    }
    require(
        (blob.size.h == size.h || blob.size.h == 1) && (blob.size.w == size.w || blob.size.w == 1),
        "tensors of one size expected, found " + text_of(blob.size) + " and " + text_of(size));
    return repeat(blob, blob.size.h == size.h ? 1 : size.h, blob.size.w == size.w ? 1 : size.w);
}

}  // namespace modelkit::onnx
