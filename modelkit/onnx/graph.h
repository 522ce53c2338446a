// An ONNX graph in memory, as the reader leaves it: plain data, without protobuf.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace modelkit::onnx {

/// The element types that ONNX files name. Strings and complex numbers are refused by the reader.
enum class ElementType {
    Undefined,
    Float,
    Double,
    Float16,
    BFloat16,
    Int8,
    Int16,
    Int32,
    Int64,
    Uint8,
    Uint16,
    Uint32,
    Uint64,
    Bool,
};

/// True for the types whose values a tensor keeps as `int64_t`, `Bool` among them.
bool is_integral(ElementType type);
/// "float", "int64" and so on, as error lines name them.
const char* name_of(ElementType type);

/// Numbers of 16 bits as files keep them.
struct Float16 {
    uint16_t bits = 0;
    operator float() const;
};
struct BFloat16 {
    uint16_t bits = 0;
    operator float() const;
};

/// A tensor with its values in row-major order, the last dimension fastest. A scalar has no
/// dimensions and one value.
///
/// Numbers with a fraction are kept as the file has them and all integral types as `int64_t` (a
/// Uint64 above INT64_MAX is refused by the reader). What is computed by the evaluator is Double,
/// of constants alone Float, or Int64 and Bool where the operator yields integers.
struct Tensor {
    using Values = std::variant<std::vector<float>, std::vector<double>, std::vector<int64_t>,
                                std::vector<Float16>, std::vector<BFloat16>>;

    ElementType type = ElementType::Undefined;
    std::vector<int64_t> dims;
    Values values;

    /// How many values there are.
    size_t size() const;
    /// One value as a double, whatever the storage.
    double number(size_t index) const;
    /// One value as an integer; floating-point values are truncated toward zero, what does not fit
    /// is clamped, NaN is 0.
    int64_t integer(size_t index) const;
    /// All values as doubles, or as integers in the way of `integer`.
    std::vector<double> numbers() const;
    std::vector<int64_t> integers() const;
    /// `count` values as floats: those at `first`, `first + step` and so on.
    void floats(size_t first, ptrdiff_t step, size_t count, float* to) const;

    static Tensor of_doubles(std::vector<int64_t> dims, std::vector<double> values);
    static Tensor of_floats(std::vector<int64_t> dims, std::vector<float> values);
    static Tensor of_integers(std::vector<int64_t> dims, std::vector<int64_t> values,
                              ElementType type = ElementType::Int64);
};

/// The product of the dimensions (1 without any), or -1 when one is negative or the product is
/// beyond 2^40 elements, more than any model holds.
int64_t element_count(const std::vector<int64_t>& dims);

struct Attribute {
    enum class Kind {
        Float,
        Int,
        String,
        Tensor,
        Floats,
        Ints,
        Strings,
        Other,  ///< a graph, a sparse tensor, a type: present, but not kept
    };

    Kind kind = Kind::Other;
    std::vector<double> floats;        ///< one for Float
    std::vector<int64_t> ints;         ///< one for Int
    std::vector<std::string> strings;  ///< one for String
    Tensor tensor;
};

struct Node {
    std::string name;  ///< as in the file, often empty
    std::string op_type;
    std::vector<std::string> inputs;   ///< an empty name is an optional input left out
    std::vector<std::string> outputs;  ///< an empty name is an optional output left out
    std::map<std::string, Attribute> attributes;

    bool has_input(size_t index) const { return index < inputs.size() && !inputs[index].empty(); }
    bool has_output(size_t index) const {
        return index < outputs.size() && !outputs[index].empty();
    }

    /// The attribute, or null when it is absent or of another kind.
    const Attribute* find(const std::string& attribute, Attribute::Kind kind) const;
    /// The attribute's value, or `otherwise` when it is absent or of another kind.
    int64_t integer(const std::string& attribute, int64_t otherwise) const;
    double number(const std::string& attribute, double otherwise) const;
    std::string text(const std::string& attribute, const std::string& otherwise) const;
    std::vector<int64_t> integers(const std::string& attribute,
                                  const std::vector<int64_t>& otherwise = {}) const;
};

/// How error lines and reports name a node: its name, else its first named output, else the
/// operator; without control characters, cut when it is long.
std::string label_of(const Node& node);
/// A text of the file for an error line: control characters and what is no UTF-8 replaced, cut when
/// it is long.
std::string printable(const std::string& text);
/// The same between double quotes.
std::string in_quotes(const std::string& text);
/// "[1, 3, 224, 224]", cut when it is long.
std::string text_of(const std::vector<int64_t>& dims);

/// An input or output of the graph.
struct ValueInfo {
    std::string name;
    ElementType type = ElementType::Undefined;
    bool has_shape = false;
    std::vector<int64_t> dims;         ///< -1 where the file gives a symbol or nothing
    std::vector<std::string> symbols;  ///< the symbol of each dimension, empty where it has none
};

/// A graph of the default operator set's nodes.
///
/// The reader guarantees: each name is made once (by an input, an initializer or one node's
/// output), each node input is made by an input, an initializer or an earlier node, each graph
/// output is made, and no node carries a domain other than the default one.
struct Graph {
    std::string name;
    std::string producer;
    int ir_version = 0;
    int opset = 0;  ///< of the default domain; operators mean what this set says

    std::vector<Node> nodes;  ///< each behind what it reads
    std::map<std::string, Tensor> initializers;
    std::vector<ValueInfo> inputs;  ///< without those that only name an initializer
    std::vector<ValueInfo> outputs;
    std::set<std::string> external_files;  ///< whole paths of the files that hold its weights
};

/// Whether an output of the graph comes from each node; nodes stand behind those they read.
std::vector<bool> needed_nodes(const Graph& graph);

}  // namespace modelkit::onnx
