// A graph of one node, for tests that give its inputs and attributes by hand.
#pragma once

#include <gtest/gtest.h>
#include <modelkit/onnx/evaluator.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace onnx_test {

using modelkit::onnx::Attribute;
using modelkit::onnx::ElementType;
using modelkit::onnx::EvaluationLimits;
using modelkit::onnx::Graph;
using modelkit::onnx::Node;
using modelkit::onnx::Tensor;
using Dims = std::vector<int64_t>;
using Numbers = std::vector<double>;

class OneNode {
public:
    explicit OneNode(const std::string& op_type, int opset = 13) {
        graph.opset = opset;
        node.name = "the node";
        node.op_type = op_type;
        node.outputs = {"y"};
    }

    OneNode& tensor(Tensor tensor) {
        const std::string name = "x" + std::to_string(node.inputs.size());
        node.inputs.push_back(name);
        graph.initializers[name] = std::move(tensor);
        return *this;
    }
    OneNode& reals(const Dims& dims, const Numbers& values) {
        return tensor(Tensor::of_doubles(dims, values));
    }
    OneNode& integers(const Dims& dims, const std::vector<int64_t>& values,
                      ElementType type = ElementType::Int64) {
        return tensor(Tensor::of_integers(dims, values, type));
    }
    OneNode& list(const std::vector<int64_t>& values) {
        return integers({static_cast<int64_t>(values.size())}, values);
    }
    OneNode& bools(const Dims& dims, const std::vector<int64_t>& values) {
        return integers(dims, values, ElementType::Bool);
    }
    OneNode& skip() {
        node.inputs.emplace_back();
        return *this;
    }
    OneNode& with(const std::string& name, int64_t value) {
        Attribute& attribute = node.attributes[name];
        attribute.kind = Attribute::Kind::Int;
        attribute.ints = {value};
        return *this;
    }
    OneNode& with(const std::string& name, int value) {
        return with(name, static_cast<int64_t>(value));
    }
    OneNode& with(const std::string& name, double value) {
        Attribute& attribute = node.attributes[name];
        attribute.kind = Attribute::Kind::Float;
        attribute.floats = {value};
        return *this;
    }
    OneNode& with(const std::string& name, const Dims& values) {
        Attribute& attribute = node.attributes[name];
        attribute.kind = Attribute::Kind::Ints;
        attribute.ints = values;
        return *this;
    }
    OneNode& with(const std::string& name, const char* value) {
        Attribute& attribute = node.attributes[name];
        attribute.kind = Attribute::Kind::String;
        attribute.strings = {value};
        return *this;
    }
    OneNode& with_numbers(const std::string& name, const Numbers& values) {
        Attribute& attribute = node.attributes[name];
        attribute.kind = Attribute::Kind::Floats;
        attribute.floats = values;
        return *this;
    }
    OneNode& with_texts(const std::string& name, const std::vector<std::string>& values) {
        Attribute& attribute = node.attributes[name];
        attribute.kind = Attribute::Kind::Strings;
        attribute.strings = values;
        return *this;
    }
    OneNode& with_tensor(const std::string& name, Tensor tensor) {
        Attribute& attribute = node.attributes[name];
        attribute.kind = Attribute::Kind::Tensor;
        attribute.tensor = std::move(tensor);
        return *this;
    }
    OneNode& outputs(const std::vector<std::string>& names) {
        node.outputs = names;
        return *this;
    }
    OneNode& within(const EvaluationLimits& given) {
        limits = given;
        return *this;
    }

    modelkit::Status run() {
        graph.nodes = {node};
        return evaluate(graph, {}, values, limits);
    }
    Tensor result(const std::string& name = "y") {
        const modelkit::Status status = run();
        EXPECT_TRUE(status) << status.message();
        return status ? values.at(name) : Tensor();
    }
    /// Expects this shape and these numbers, exactly or within `tolerance`.
    void gives(const Dims& dims, const Numbers& numbers, double tolerance = 0) {
        const Tensor found = result();
        EXPECT_EQ(found.dims, dims);
        ASSERT_EQ(found.size(), numbers.size());
        for (size_t i = 0; i < numbers.size(); ++i) {
            if (std::isnan(numbers[i])) {
                EXPECT_TRUE(std::isnan(found.number(i))) << i;
            } else if (tolerance == 0 || std::isinf(numbers[i])) {
                EXPECT_EQ(found.number(i), numbers[i]) << i;
            } else {
                EXPECT_NEAR(found.number(i), numbers[i], tolerance) << i;
            }
        }
    }
    /// Expects one line that names the node, the operator and contains `reason`.
    void is_refused(const std::string& reason) {
        const modelkit::Status status = run();
        ASSERT_FALSE(status) << node.op_type << " was evaluated";
        const std::string& line = status.message();
        EXPECT_EQ(line.rfind("node \"the node\" (" + node.op_type + "): ", 0), 0u) << line;
        EXPECT_NE(line.find(reason), std::string::npos) << line;
        EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    }

    Graph graph;
    Node node;
    EvaluationLimits limits;
    std::map<std::string, Tensor> values;
};

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double ENDLESS = std::numeric_limits<double>::infinity();

}  // namespace onnx_test
