#include "modelkit/onnx/file_parts.h"

#include <google/protobuf/wire_format_lite.h>

#include <cstdint>
#include <string>
#include <unordered_map>

#include "modelkit/onnx/reader.h"

namespace modelkit::onnx {

namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

enum class Message {
    Text,  ///< or a list of numbers: passed over
    Pairs,
    Model,
    Training,
    Function,
    Graph,
    Node,
    Attribute,
    Tensor,
    SparseTensor,
    Value,
    Type,
    TypeParts,
    Shape,
    Annotation,
};

// The messages inside of a message, by field number; all other fields are texts and numbers.
using Fields = std::unordered_map<int, Message>;

const Fields& fields_of(Message message) {
    static const Fields none;
    static const Fields model = {{7, Message::Graph},
                                 {8, Message::Pairs},
                                 {14, Message::Pairs},
                                 {20, Message::Training},
                                 {25, Message::Function}};
    static const Fields training = {
        {1, Message::Graph}, {2, Message::Graph}, {3, Message::Pairs}, {4, Message::Pairs}};
    static const Fields function = {{7, Message::Node}, {9, Message::Pairs}};
    static const Fields graph = {{1, Message::Node},         {5, Message::Tensor},
                                 {11, Message::Value},       {12, Message::Value},
                                 {13, Message::Value},       {14, Message::Annotation},
                                 {15, Message::SparseTensor}};
    static const Fields node = {{5, Message::Attribute}};
    static const Fields attribute = {{5, Message::Tensor},        {6, Message::Graph},
                                     {10, Message::Tensor},       {11, Message::Graph},
                                     {14, Message::Type},         {15, Message::Type},
                                     {22, Message::SparseTensor}, {23, Message::SparseTensor}};
    static const Fields tensor = {{3, Message::Pairs}, {13, Message::Pairs}};
    static const Fields sparse_tensor = {{1, Message::Tensor}, {2, Message::Tensor}};
    static const Fields value = {{2, Message::Type}};
    static const Fields type = {{1, Message::TypeParts},
                                {4, Message::TypeParts},
                                {5, Message::TypeParts},
                                {8, Message::TypeParts},
                                {9, Message::TypeParts}};
    // A tensor's shape, or the type of what a sequence, a map or an optional value holds.
    static const Fields type_parts = {{1, Message::Type}, {2, Message::Shape}};
    static const Fields shape = {{1, Message::Pairs}};
    static const Fields annotation = {{2, Message::Pairs}};
    switch (message) {
        case Message::Text:
        case Message::Pairs:
            return none;
        case Message::Model:
            return model;
        case Message::Training:
            return training;
        case Message::Function:
            return function;
        case Message::Graph:
            return graph;
        case Message::Node:
            return node;
        case Message::Attribute:
            return attribute;
        case Message::Tensor:
            return tensor;
        case Message::SparseTensor:
            return sparse_tensor;
        case Message::Value:
            return value;
        case Message::Type:
            return type;
        case Message::TypeParts:
            return type_parts;
        case Message::Shape:
            return shape;
        case Message::Annotation:
            return annotation;
    }
    return none;
}

// As deep as the parser goes.
constexpr int MOST_LEVELS = 100;

class Counter {
public:
    explicit Counter(CodedInputStream& in) : in(in) {}

    /// False for what is no message.
    bool count(Message message, int level) {
        if (level > MOST_LEVELS) return false;
        const Fields& fields = fields_of(message);
        for (;;) {
            const uint32_t tag = in.ReadTag();
            if (tag == 0) return in.ConsumedEntireMessage();
            if (WireFormatLite::GetTagWireType(tag) != WireFormatLite::WIRETYPE_LENGTH_DELIMITED) {
                if (!WireFormatLite::SkipField(&in, tag)) return false;
                continue;
            }
            const auto field = fields.find(WireFormatLite::GetTagFieldNumber(tag));
            const Message inside = field == fields.end() ? Message::Text : field->second;
            int length = 0;
            if (!in.ReadVarintSizeAsInt(&length)) return false;
            ++parts;
            if (inside == Message::Node) ++nodes;
            if (inside == Message::Text) {
                if (!in.Skip(length)) return false;
                continue;
            }
            const CodedInputStream::Limit outer = in.PushLimit(length);
            const bool sound = count(inside, level + 1) && in.BytesUntilLimit() == 0;
            in.PopLimit(outer);
            if (!sound) return false;
        }
    }

    size_t parts = 0;
    size_t nodes = 0;

private:
    CodedInputStream& in;
};

}  // namespace

Status check_parts(CodedInputStream& in, FileKind kind) {
    Counter counter(in);
    const bool model = kind == FileKind::Model;
    if (!counter.count(model ? Message::Model : Message::Tensor, 0)) {
        return Status::failure(std::string("is not an ONNX ") + (model ? "model" : "tensor") +
                               ", or it is cut off");
    }
    if (counter.nodes > MOST_NODES) {
        return Status::failure("has " + std::to_string(counter.nodes) +
                               " nodes, expected at most " + std::to_string(MOST_NODES));
    }
    if (counter.parts > MOST_PARTS) {
        return Status::failure("has " + std::to_string(counter.parts) +
                               " texts, lists and parts, expected at most " +
                               std::to_string(MOST_PARTS));
    }
    return Status::success();
}

}  // namespace modelkit::onnx
