#include "modelkit/onnx/reader.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <onnx/onnx_pb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <limits>
#include <queue>
#include <set>
#include <unordered_map>
#include <utility>

#include "modelkit/onnx/descriptor.h"
#include "modelkit/onnx/external_data.h"
#include "modelkit/onnx/file_parts.h"

namespace modelkit::onnx {

namespace {

namespace proto = ::onnx;
using google::protobuf::MessageLite;
using google::protobuf::io::CodedInputStream;
using google::protobuf::io::FileInputStream;

bool element_type_of(int number, ElementType& type) {
    switch (number) {
        case proto::TensorProto::FLOAT:
            type = ElementType::Float;
            return true;
        case proto::TensorProto::DOUBLE:
            type = ElementType::Double;
            return true;
        case proto::TensorProto::FLOAT16:
            type = ElementType::Float16;
            return true;
        case proto::TensorProto::BFLOAT16:
            type = ElementType::BFloat16;
            return true;
        case proto::TensorProto::INT8:
            type = ElementType::Int8;
            return true;
        case proto::TensorProto::INT16:
            type = ElementType::Int16;
            return true;
        case proto::TensorProto::INT32:
            type = ElementType::Int32;
            return true;
        case proto::TensorProto::INT64:
            type = ElementType::Int64;
            return true;
        case proto::TensorProto::UINT8:
            type = ElementType::Uint8;
            return true;
        case proto::TensorProto::UINT16:
            type = ElementType::Uint16;
            return true;
        case proto::TensorProto::UINT32:
            type = ElementType::Uint32;
            return true;
        case proto::TensorProto::UINT64:
            type = ElementType::Uint64;
            return true;
        case proto::TensorProto::BOOL:
            type = ElementType::Bool;
            return true;
        default:
            return false;
    }
}

size_t bytes_of(ElementType type) {
    switch (type) {
        case ElementType::Undefined:
            return 0;
        case ElementType::Int8:
        case ElementType::Uint8:
        case ElementType::Bool:
            return 1;
        case ElementType::Float16:
        case ElementType::BFloat16:
        case ElementType::Int16:
        case ElementType::Uint16:
            return 2;
        case ElementType::Float:
        case ElementType::Int32:
        case ElementType::Uint32:
            return 4;
        case ElementType::Double:
        case ElementType::Int64:
        case ElementType::Uint64:
            return 8;
    }
    return 0;
}

// Files are little-endian, as are the machines that this is built for.
template <typename Stored, typename Value>
void append(const char* bytes, size_t length, std::vector<Value>& values) {
    for (size_t at = 0; at < length; at += sizeof(Stored)) {
        Stored stored;
        std::memcpy(&stored, bytes + at, sizeof(Stored));
        values.push_back(static_cast<Value>(stored));
    }
}

// What is kept as it is stored.
template <typename Value>
void append(const char* bytes, size_t length, std::vector<Value>& values) {
    const size_t before = values.size();
    values.resize(before + length / sizeof(Value));
    if (length != 0) std::memcpy(values.data() + before, bytes, length);
}

// Room for `count` values of a type; none are there yet.
Tensor::Values room_for(ElementType type, size_t count) {
    const auto room = [count](auto list) -> Tensor::Values {
        list.reserve(count);
        return list;
    };
    if (type == ElementType::Float) return room(std::vector<float>());
    if (type == ElementType::Double) return room(std::vector<double>());
    if (type == ElementType::Float16) return room(std::vector<Float16>());
    if (type == ElementType::BFloat16) return room(std::vector<BFloat16>());
    return room(std::vector<int64_t>());
}

void append_values(ElementType type, const char* bytes, size_t length, Tensor::Values& values) {
    switch (type) {
        case ElementType::Float:
            return append(bytes, length, std::get<std::vector<float>>(values));
        case ElementType::Double:
            return append(bytes, length, std::get<std::vector<double>>(values));
        case ElementType::Float16:
            return append(bytes, length, std::get<std::vector<Float16>>(values));
        case ElementType::BFloat16:
            return append(bytes, length, std::get<std::vector<BFloat16>>(values));
        default:
            break;
    }
    auto& integers = std::get<std::vector<int64_t>>(values);
    switch (type) {
        case ElementType::Int8:
            return append<int8_t>(bytes, length, integers);
        case ElementType::Int16:
            return append<int16_t>(bytes, length, integers);
        case ElementType::Int32:
            return append<int32_t>(bytes, length, integers);
        case ElementType::Uint8:
            return append<uint8_t>(bytes, length, integers);
        case ElementType::Uint16:
            return append<uint16_t>(bytes, length, integers);
        case ElementType::Uint32:
            return append<uint32_t>(bytes, length, integers);
        case ElementType::Bool:
            for (size_t i = 0; i < length; ++i) integers.push_back(bytes[i] != 0 ? 1 : 0);
            return;
        default:
            return append(bytes, length, integers);
    }
}

template <typename Value, typename List>
std::vector<Value> copied(const List& list) {
    return std::vector<Value>(list.begin(), list.end());
}

template <typename Half>
std::vector<Half> halves_of(const proto::TensorProto& from) {
    std::vector<Half> list;
    list.reserve(static_cast<size_t>(from.int32_data_size()));
    for (const int32_t value : from.int32_data()) {
        list.push_back({static_cast<uint16_t>(value & 0xffff)});
    }
    return list;
}

// The typed lists of a TensorProto, for what has no raw bytes.
Tensor::Values values_of_lists(const proto::TensorProto& from, ElementType type) {
    switch (type) {
        case ElementType::Float:
            return copied<float>(from.float_data());
        case ElementType::Double:
            return copied<double>(from.double_data());
        case ElementType::Float16:
            return halves_of<Float16>(from);
        case ElementType::BFloat16:
            return halves_of<BFloat16>(from);
        case ElementType::Int64:
            return copied<int64_t>(from.int64_data());
        case ElementType::Uint32:
        case ElementType::Uint64: {
            std::vector<int64_t> list;
            list.reserve(static_cast<size_t>(from.uint64_data_size()));
            for (const uint64_t value : from.uint64_data())
                list.push_back(static_cast<int64_t>(value));
            return list;
        }
        default:
            return copied<int64_t>(from.int32_data());
    }
}

// Of external data at once; a multiple of every element's size.
constexpr size_t PIECE = size_t{1} << 16;

// Takes a tensor over and frees the proto's copy of its values.
Status take_tensor(proto::TensorProto& from, ExternalData& external, Tensor& to) {
    if (from.has_segment()) return Status::failure("a tensor in segments is not supported");
    if (!element_type_of(from.data_type(), to.type)) {
        return Status::failure("element type " + std::to_string(from.data_type()) +
                               " is not supported");
    }
    to.dims.assign(from.dims().begin(), from.dims().end());
    const int64_t elements = element_count(to.dims);
    if (elements < 0 || to.dims.size() > 64) {
        return Status::failure("shape " + text_of(to.dims) + " is not possible");
    }
    const auto count = static_cast<size_t>(elements);
    const size_t size = count * bytes_of(to.type);
    if (from.data_location() == proto::TensorProto::EXTERNAL) {
        bool started = false;
        const Status read = external.read(from, size, PIECE, [&](const char* bytes, size_t length) {
            if (!started) to.values = room_for(to.type, count);
            started = true;
            append_values(to.type, bytes, length, to.values);
        });
        if (!read) return read;
        if (!started) to.values = room_for(to.type, 0);
    } else if (from.has_raw_data()) {
        if (from.raw_data().size() != size) {
            return Status::failure("has " + std::to_string(from.raw_data().size()) +
                                   " bytes, expected " + std::to_string(size) + " for shape " +
                                   text_of(to.dims) + " of " + name_of(to.type));
        }
        to.values = room_for(to.type, count);
        append_values(to.type, from.raw_data().data(), size, to.values);
    } else {
        to.values = values_of_lists(from, to.type);
        if (to.size() != count) {
            return Status::failure("has " + std::to_string(to.size()) + " values, expected " +
                                   std::to_string(count) + " for shape " + text_of(to.dims));
        }
    }
    if (to.type == ElementType::Uint64) {
        for (const int64_t value : std::get<std::vector<int64_t>>(to.values)) {
            if (value < 0) return Status::failure("has a uint64 above 2^63");
        }
    }
    from.Clear();
    // Clear keeps what strings and lists have allocated; a swap gives it back.
    proto::TensorProto().Swap(&from);
    return Status::success();
}

Status take_attribute(proto::AttributeProto& from, ExternalData& external, Attribute& to) {
    using Kind = Attribute::Kind;
    switch (from.type()) {
        case proto::AttributeProto::FLOAT:
            to.kind = Kind::Float;
            to.floats = {static_cast<double>(from.f())};
            break;
        case proto::AttributeProto::INT:
            to.kind = Kind::Int;
            to.ints = {from.i()};
            break;
        case proto::AttributeProto::STRING:
            to.kind = Kind::String;
            to.strings = {from.s()};
            break;
        case proto::AttributeProto::TENSOR:
            to.kind = Kind::Tensor;
            return take_tensor(*from.mutable_t(), external, to.tensor);
        case proto::AttributeProto::FLOATS:
            to.kind = Kind::Floats;
            to.floats = copied<double>(from.floats());
            break;
        case proto::AttributeProto::INTS:
            to.kind = Kind::Ints;
            to.ints = copied<int64_t>(from.ints());
            break;
        case proto::AttributeProto::STRINGS:
            to.kind = Kind::Strings;
            to.strings = copied<std::string>(from.strings());
            break;
        default:
            to.kind = Kind::Other;
            break;
    }
    return Status::success();
}

bool default_domain(const std::string& domain) {
    return domain.empty() || domain == "ai.onnx";
}

Status take_node(proto::NodeProto& from, ExternalData& external, Node& to) {
    to.name = from.name();
    to.op_type = from.op_type();
    to.inputs = copied<std::string>(from.input());
    to.outputs = copied<std::string>(from.output());
    const auto named = [&to] {
        return "node " + in_quotes(label_of(to)) + " (" + printable(to.op_type) + ")";
    };
    if (!default_domain(from.domain())) {
        return Status::failure(named() + " is of the operator domain " + in_quotes(from.domain()) +
                               ", expected the default one");
    }
    for (proto::AttributeProto& attribute : *from.mutable_attribute()) {
        const auto [place, is_new] = to.attributes.try_emplace(attribute.name());
        const std::string name = in_quotes(attribute.name());
        if (!is_new) return Status::failure(named() + " has attribute " + name + " twice");
        const Status taken = take_attribute(attribute, external, place->second);
        if (!taken) {
            return Status::failure(named() + ", attribute " + name + ": " + taken.message());
        }
    }
    proto::NodeProto().Swap(&from);
    return Status::success();
}

Status take_value_info(const proto::ValueInfoProto& from, ValueInfo& to) {
    to.name = from.name();
    if (!from.has_type()) return Status::success();
    if (!from.type().has_tensor_type()) {
        return Status::failure(in_quotes(to.name) + " is no tensor");
    }
    const proto::TypeProto_Tensor& type = from.type().tensor_type();
    if (!element_type_of(type.elem_type(), to.type)) {
        return Status::failure(in_quotes(to.name) + " has element type " +
                               std::to_string(type.elem_type()) + ", which is not supported");
    }
    to.has_shape = type.has_shape();
    for (const proto::TensorShapeProto_Dimension& dim : type.shape().dim()) {
        to.dims.push_back(dim.has_dim_value() ? dim.dim_value() : -1);
        to.symbols.push_back(dim.has_dim_param() ? dim.dim_param() : std::string());
        if (dim.has_dim_value() && dim.dim_value() < 0) to.dims.back() = -1;
    }
    return Status::success();
}

// Puts each node behind what it reads, otherwise in the file's order, and checks that all that is
// read is made and that nothing is made twice.
Status sort_nodes(Graph& graph) {
    std::unordered_map<std::string, size_t> made_by;
    constexpr size_t OUTSIDE = std::numeric_limits<size_t>::max();
    for (const ValueInfo& input : graph.inputs) {
        if (!made_by.emplace(input.name, OUTSIDE).second) {
            return Status::failure("the input " + in_quotes(input.name) + " is there twice");
        }
    }
    for (const auto& [name, tensor] : graph.initializers) made_by.emplace(name, OUTSIDE);
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        for (const std::string& output : graph.nodes[i].outputs) {
            if (!output.empty() && !made_by.emplace(output, i).second) {
                return Status::failure("node " + in_quotes(label_of(graph.nodes[i])) +
                                       " makes the value " + in_quotes(output) +
                                       ", which is there already");
            }
        }
    }
    std::vector<size_t> waiting(graph.nodes.size(), 0);
    std::vector<std::vector<size_t>> readers(graph.nodes.size());
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        for (const std::string& input : graph.nodes[i].inputs) {
            if (input.empty()) continue;
            const auto maker = made_by.find(input);
            if (maker == made_by.end()) {
                return Status::failure("node " + in_quotes(label_of(graph.nodes[i])) + " (" +
                                       printable(graph.nodes[i].op_type) + ") reads " +
                                       in_quotes(input) +
                                       ", which is no input, no initializer and no node's output");
            }
            if (maker->second == OUTSIDE) continue;
            readers[maker->second].push_back(i);
            ++waiting[i];
        }
    }
    for (const ValueInfo& output : graph.outputs) {
        if (made_by.find(output.name) == made_by.end()) {
            return Status::failure("the output " + in_quotes(output.name) + " is made by no node");
        }
    }
    std::priority_queue<size_t, std::vector<size_t>, std::greater<size_t>> ready;
    for (size_t i = 0; i < waiting.size(); ++i) {
        if (waiting[i] == 0) ready.push(i);
    }
    std::vector<Node> sorted;
    sorted.reserve(graph.nodes.size());
    while (!ready.empty()) {
        const size_t next = ready.top();
        ready.pop();
        sorted.push_back(std::move(graph.nodes[next]));
        for (const size_t reader : readers[next]) {
            if (--waiting[reader] == 0) ready.push(reader);
        }
    }
    if (sorted.size() < graph.nodes.size()) {
        size_t stuck = 0;
        while (waiting[stuck] == 0) ++stuck;
        return Status::failure("node " + in_quotes(label_of(graph.nodes[stuck])) +
                               " waits for itself: the graph has a cycle");
    }
    graph.nodes = std::move(sorted);
    return Status::success();
}

Status take_model(proto::ModelProto& model, const std::string& folder, Graph& graph) {
    if (!model.has_ir_version() || !model.has_graph()) {
        return Status::failure("is not an ONNX model");
    }
    if (model.ir_version() < OLDEST_IR || model.ir_version() > NEWEST_IR) {
        return Status::failure("has IR version " + std::to_string(model.ir_version()) +
                               ", expected 3 to 8");
    }
    graph.ir_version = static_cast<int>(model.ir_version());
    graph.producer = model.producer_name();
    if (model.functions_size() != 0) {
        return Status::failure("defines functions of its own, which are not supported");
    }
    int64_t opset = 0;
    for (const proto::OperatorSetIdProto& set : model.opset_import()) {
        if (!default_domain(set.domain())) continue;
        if (opset != 0 && opset != set.version()) {
            return Status::failure("names the operator sets " + std::to_string(opset) + " and " +
                                   std::to_string(set.version()) +
                                   " of the default domain, expected one");
        }
        opset = set.version();
    }
    if (opset < OLDEST_OPSET || opset > NEWEST_OPSET) {
        return Status::failure((opset == 0
                                    ? std::string("names no operator set of the default domain")
                                    : "has operator set " + std::to_string(opset)) +
                               ", expected one of 7 to 17");
    }
    graph.opset = static_cast<int>(opset);

    proto::GraphProto& from = *model.mutable_graph();
    graph.name = from.name();
    ExternalData external(folder);
    if (from.sparse_initializer_size() != 0) {
        return Status::failure("has sparse initializers, which are not supported");
    }
    for (proto::TensorProto& initializer : *from.mutable_initializer()) {
        const std::string name = initializer.name();
        const auto [place, is_new] = graph.initializers.try_emplace(name);
        if (name.empty()) return Status::failure("an initializer has no name");
        if (!is_new)
            return Status::failure("the initializer " + in_quotes(name) + " is there twice");
        const Status taken = take_tensor(initializer, external, place->second);
        if (!taken) {
            return Status::failure("the initializer " + in_quotes(name) + ": " + taken.message());
        }
    }
    for (const proto::ValueInfoProto& input : from.input()) {
        if (input.name().empty()) return Status::failure("an input has no name");
        if (graph.initializers.count(input.name()) != 0) continue;
        graph.inputs.emplace_back();
        const Status taken = take_value_info(input, graph.inputs.back());
        if (!taken) return Status::failure("the input " + taken.message());
    }
    std::set<std::string> outputs;
    for (const proto::ValueInfoProto& output : from.output()) {
        graph.outputs.emplace_back();
        const Status taken = take_value_info(output, graph.outputs.back());
        if (!taken) return Status::failure("the output " + taken.message());
        if (!outputs.insert(output.name()).second) {
            return Status::failure("the output " + in_quotes(output.name()) + " is there twice");
        }
    }
    if (graph.outputs.empty()) return Status::failure("has no outputs");
    graph.nodes.resize(static_cast<size_t>(from.node_size()));
    for (int i = 0; i < from.node_size(); ++i) {
        const Status taken =
            take_node(*from.mutable_node(i), external, graph.nodes[static_cast<size_t>(i)]);
        if (!taken) return taken;
    }
    graph.external_files = external.files();
    return sort_nodes(graph);
}

Status take_and_clear(proto::ModelProto& model, const std::string& folder, Graph& graph) {
    graph = Graph();
    const Status taken = take_model(model, folder, graph);
    if (!taken) graph = Graph();
    return taken;
}

// Through a stream, so that the file's bytes are in memory once, as the message.
Status parse_file(const std::string& path, FileKind kind, MessageLite& message) {
    const Descriptor file(path);
    struct stat state = {};
    if (file.get() < 0 || fstat(file.get(), &state) != 0) {
        return Status::failure(std::strerror(errno));
    }
    if (!S_ISREG(state.st_mode)) return Status::failure("is not a file");
    if (state.st_size > INT_MAX) {
        return Status::failure("has " + std::to_string(state.st_size) +
                               " bytes, more than the 2 GB that ONNX files can have");
    }
    {
        FileInputStream stream(file.get());
        CodedInputStream coded(&stream);
        const Status counted = check_parts(coded, kind);
        if (!counted) return counted;
    }
    if (lseek(file.get(), 0, SEEK_SET) != 0) return Status::failure(std::strerror(errno));
    FileInputStream stream(file.get());
    if (state.st_size == 0 || !message.ParsePartialFromZeroCopyStream(&stream)) {
        return Status::failure(std::string("is not an ONNX ") +
                               (kind == FileKind::Model ? "model" : "tensor") +
                               ", or it is cut off");
    }
    return Status::success();
}

}  // namespace

Status read_graph(const std::string& path, Graph& graph) {
    graph = Graph();
    proto::ModelProto model;
    const Status parsed = parse_file(path, FileKind::Model, model);
    if (!parsed) return parsed;
    std::string folder = std::filesystem::path(path).parent_path().string();
    if (folder.empty()) folder = ".";
    return take_and_clear(model, folder, graph);
}

Status read_graph(const void* bytes, size_t size, const std::string& folder, Graph& graph) {
    graph = Graph();
    if (size == 0 || size > INT_MAX) {
        return Status::failure("is not an ONNX model, or it is cut off");
    }
    CodedInputStream coded(static_cast<const uint8_t*>(bytes), static_cast<int>(size));
    const Status counted = check_parts(coded, FileKind::Model);
    if (!counted) return counted;
    proto::ModelProto model;
    if (!model.ParsePartialFromArray(bytes, static_cast<int>(size))) {
        return Status::failure("is not an ONNX model, or it is cut off");
    }
    return take_and_clear(model, folder, graph);
}

Status read_tensor(const std::string& path, Tensor& tensor) {
    tensor = Tensor();
    proto::TensorProto from;
    const Status parsed = parse_file(path, FileKind::Tensor, from);
    if (!parsed) return parsed;
    if (from.data_location() == proto::TensorProto::EXTERNAL) {
        std::string location;
        for (const auto& entry : from.external_data()) {
            if (entry.key() == "location") location = entry.value();
        }
        return Status::failure("is expected to hold its numbers, found them in another file, " +
                               in_quotes(location));
    }
    ExternalData none{std::string()};
    const Status taken = take_tensor(from, none, tensor);
    if (!taken) tensor = Tensor();
    return taken;
}

}  // namespace modelkit::onnx
