#include "modelkit/onnx/graph.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <unordered_set>
#include <utility>

namespace modelkit::onnx {

namespace {

constexpr int64_t MOST_ELEMENTS = int64_t(1) << 40;
constexpr size_t MOST_LETTERS = 100;

int64_t truncated(double value) {
    constexpr double LIMIT = 9223372036854775808.0;  // 2^63
    if (value != value) return 0;
    if (value >= LIMIT) return std::numeric_limits<int64_t>::max();
    if (value < -LIMIT) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}

}  // namespace

bool is_integral(ElementType type) {
    switch (type) {
        case ElementType::Undefined:
        case ElementType::Float:
        case ElementType::Double:
        case ElementType::Float16:
        case ElementType::BFloat16:
            return false;
        default:
            return true;
    }
}

const char* name_of(ElementType type) {
    switch (type) {
        case ElementType::Undefined:
            return "undefined";
        case ElementType::Float:
            return "float";
        case ElementType::Double:
            return "double";
        case ElementType::Float16:
            return "float16";
        case ElementType::BFloat16:
            return "bfloat16";
        case ElementType::Int8:
            return "int8";
        case ElementType::Int16:
            return "int16";
        case ElementType::Int32:
            return "int32";
        case ElementType::Int64:
            return "int64";
        case ElementType::Uint8:
            return "uint8";
        case ElementType::Uint16:
            return "uint16";
        case ElementType::Uint32:
            return "uint32";
        case ElementType::Uint64:
            return "uint64";
        case ElementType::Bool:
            return "bool";
    }
    return "undefined";
}

Float16::operator float() const {
    const uint32_t sign = static_cast<uint32_t>(bits & 0x8000) << 16;
    uint32_t exponent = (bits >> 10) & 31;
    uint32_t fraction = bits & 1023;
    uint32_t result;
    if (exponent == 31) {
        result = sign | 0x7f800000 | fraction << 13;
    } else if (exponent != 0) {
        result = sign | (exponent + 112) << 23 | fraction << 13;
    } else if (fraction == 0) {
        result = sign;
    } else {
        exponent = 113;
        while ((fraction & 1024) == 0) {
            fraction <<= 1;
            --exponent;
        }
        result = sign | exponent << 23 | (fraction & 1023) << 13;
    }
    float value;
    std::memcpy(&value, &result, sizeof(value));
    return value;
}

BFloat16::operator float() const {
    const uint32_t wide = static_cast<uint32_t>(bits) << 16;
    float value;
    std::memcpy(&value, &wide, sizeof(value));
    return value;
}

size_t Tensor::size() const {
    return std::visit([](const auto& list) { return list.size(); }, values);
}

double Tensor::number(size_t index) const {
    return std::visit([index](const auto& list) { return static_cast<double>(list[index]); },
                      values);
}

int64_t Tensor::integer(size_t index) const {
    if (const auto* list = std::get_if<std::vector<int64_t>>(&values)) return (*list)[index];
    return truncated(number(index));
}

std::vector<double> Tensor::numbers() const {
    return std::visit(
        [](const auto& list) { return std::vector<double>(list.begin(), list.end()); }, values);
}

std::vector<int64_t> Tensor::integers() const {
    if (const auto* list = std::get_if<std::vector<int64_t>>(&values)) return *list;
    std::vector<int64_t> result(size());
    for (size_t i = 0; i < result.size(); ++i) result[i] = integer(i);
    return result;
}

void Tensor::floats(size_t first, ptrdiff_t step, size_t count, float* to) const {
    std::visit(
        [&](const auto& list) {
            const auto* from = list.data() + first;
            for (size_t i = 0; i < count; ++i) {
                to[i] = static_cast<float>(from[static_cast<ptrdiff_t>(i) * step]);
            }
        },
        values);
}

Tensor Tensor::of_doubles(std::vector<int64_t> dims, std::vector<double> values) {
    return {ElementType::Double, std::move(dims), std::move(values)};
}

Tensor Tensor::of_floats(std::vector<int64_t> dims, std::vector<float> values) {
    return {ElementType::Float, std::move(dims), std::move(values)};
}

Tensor Tensor::of_integers(std::vector<int64_t> dims, std::vector<int64_t> values,
                           ElementType type) {
    return {type, std::move(dims), std::move(values)};
}

int64_t element_count(const std::vector<int64_t>& dims) {
    int64_t count = 1;
    bool empty = false;
    for (const int64_t size : dims) {
        if (size < 0) return -1;
        if (size == 0) {
            empty = true;
            continue;
        }
        if (size > MOST_ELEMENTS / count) return -1;
        count *= size;
    }
    return empty ? 0 : count;
}

const Attribute* Node::find(const std::string& attribute, Attribute::Kind kind) const {
    const auto found = attributes.find(attribute);
    return found != attributes.end() && found->second.kind == kind ? &found->second : nullptr;
}

int64_t Node::integer(const std::string& attribute, int64_t otherwise) const {
    const Attribute* found = find(attribute, Attribute::Kind::Int);
    return found != nullptr ? found->ints[0] : otherwise;
}

double Node::number(const std::string& attribute, double otherwise) const {
    const Attribute* found = find(attribute, Attribute::Kind::Float);
    return found != nullptr ? found->floats[0] : otherwise;
}

std::string Node::text(const std::string& attribute, const std::string& otherwise) const {
    const Attribute* found = find(attribute, Attribute::Kind::String);
    return found != nullptr ? found->strings[0] : otherwise;
}

std::vector<int64_t> Node::integers(const std::string& attribute,
                                    const std::vector<int64_t>& otherwise) const {
    const Attribute* found = find(attribute, Attribute::Kind::Ints);
    return found != nullptr ? found->ints : otherwise;
}

namespace {

// How many bytes the letter has that begins there; 0 for a control character, the second range of
// them (U+0080 to U+009F) included, and for what is no UTF-8.
size_t letter_at(const std::string& text, size_t at) {
    const auto byte = [&](size_t i) {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0u;
    };
    const unsigned int first = byte(0);
    if (first < 0x80) return first < 32 || first == 127 ? 0 : 1;
    const size_t length = first < 0xc2   ? 0
                          : first < 0xe0 ? 2
                          : first < 0xf0 ? 3
                          : first < 0xf5 ? 4
                                         : 0;
    if (length == 0) return 0;
    unsigned int code = first & (0xffu >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0u) != 0x80u) return 0;
        code = code << 6 | (byte(i) & 0x3fu);
    }
    constexpr unsigned int LEAST[] = {0, 0, 0xa0, 0x800, 0x10000};
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < LEAST[length] || code > 0x10ffff || surrogate ? 0 : length;
}

}  // namespace

std::string printable(const std::string& text) {
    std::string result;
    size_t at = 0;
    while (at < text.size() && at < MOST_LETTERS) {
        const size_t length = letter_at(text, at);
        if (length == 0) {
            result += '?';
            ++at;
            continue;
        }
        if (at + length > MOST_LETTERS) break;
        result.append(text, at, length);
        at += length;
    }
    return at < text.size() ? result + "..." : result;
}

std::string in_quotes(const std::string& text) {
    return '"' + printable(text) + '"';
}

std::string text_of(const std::vector<int64_t>& dims) {
    std::string text = "[";
    const size_t shown = std::min<size_t>(dims.size(), 8);
    for (size_t i = 0; i < shown; ++i) text += (i == 0 ? "" : ", ") + std::to_string(dims[i]);
    return text + (shown < dims.size() ? ", ...]" : "]");
}

std::string label_of(const Node& node) {
    if (!node.name.empty()) return printable(node.name);
    for (const std::string& output : node.outputs) {
        if (!output.empty()) return printable(output);
    }
    return printable(node.op_type);
}

std::vector<bool> needed_nodes(const Graph& graph) {
    std::vector<bool> needed(graph.nodes.size(), false);
    std::unordered_set<std::string> read;
    for (const ValueInfo& output : graph.outputs) read.insert(output.name);
    for (size_t i = graph.nodes.size(); i-- > 0;) {
        const Node& node = graph.nodes[i];
        for (const std::string& output : node.outputs) {
            if (read.count(output) != 0) needed[i] = true;
        }
        if (needed[i]) read.insert(node.inputs.begin(), node.inputs.end());
        // An input that is left out has the name of an output that is left out.
        read.erase(std::string());
    }
    return needed;
}

}  // namespace modelkit::onnx
