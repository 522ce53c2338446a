#include "modelkit/onnx/graph.h"

#include <algorithm>
#include <cstring>
#include <limits>
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

std::string printable(const std::string& text) {
    std::string result = text.substr(0, MOST_LETTERS);
    for (char& letter : result) {
        if (static_cast<unsigned char>(letter) < 32 || letter == 127) letter = '?';
    }
    return text.size() > MOST_LETTERS ? result + "..." : result;
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

}  // namespace modelkit::onnx
