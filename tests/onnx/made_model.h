// ONNX models made in memory, node by node.
#pragma once

#include <onnx/onnx_pb.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/onnx_fill.h"

namespace onnx_test {

/// The value of an attribute, by its C++ type.
class With {
public:
    With(const std::string& name, int value) : With(name, static_cast<int64_t>(value)) {}
    With(const std::string& name, int64_t value) {
        proto.set_name(name);
        proto.set_type(onnx::AttributeProto::INT);
        proto.set_i(value);
    }
    With(const std::string& name, double value) {
        proto.set_name(name);
        proto.set_type(onnx::AttributeProto::FLOAT);
        proto.set_f(static_cast<float>(value));
    }
    With(const std::string& name, const char* value) {
        proto.set_name(name);
        proto.set_type(onnx::AttributeProto::STRING);
        proto.set_s(value);
    }
    With(const std::string& name, const std::vector<int64_t>& values) {
        proto.set_name(name);
        proto.set_type(onnx::AttributeProto::INTS);
        for (const int64_t value : values) proto.add_ints(value);
    }
    With(const std::string& name, const std::vector<float>& values) {
        proto.set_name(name);
        proto.set_type(onnx::AttributeProto::FLOATS);
        for (const float value : values) proto.add_floats(value);
    }

    onnx::AttributeProto proto;
};

class MadeModel {
public:
    explicit MadeModel(int opset = 13, int ir_version = 7) {
        proto.set_ir_version(ir_version);
        proto.add_opset_import()->set_version(opset);
        proto.mutable_graph()->set_name("made");
    }

    /// A dimension of -1 stays open.
    MadeModel& input(const std::string& name, const std::vector<int64_t>& dims,
                     int type = onnx::TensorProto::FLOAT) {
        describe(*graph().add_input(), name, dims, type);
        return *this;
    }
    MadeModel& output(const std::string& name) {
        graph().add_output()->set_name(name);
        return *this;
    }
    /// With its type and dimensions, -1 for one that stays open.
    MadeModel& output(const std::string& name, const std::vector<int64_t>& dims,
                      int type = onnx::TensorProto::FLOAT) {
        describe(*graph().add_output(), name, dims, type);
        return *this;
    }
    MadeModel& floats(const std::string& name, const std::vector<int64_t>& dims,
                      const std::vector<float>& values) {
        onnx::TensorProto& tensor = add_tensor(name, dims, onnx::TensorProto::FLOAT);
        tensor.set_raw_data(values.data(), values.size() * sizeof(float));
        return *this;
    }
    /// Numbers from -limit to limit.
    MadeModel& random(const std::string& name, const std::vector<int64_t>& dims, uint32_t seed,
                      double limit = 1.0) {
        size_t count = 1;
        for (const int64_t size : dims) count *= static_cast<size_t>(size);
        return floats(name, dims, testing_support::uniform_fill(seed, -limit, limit, count));
    }
    MadeModel& integers(const std::string& name, const std::vector<int64_t>& values) {
        onnx::TensorProto& tensor =
            add_tensor(name, {static_cast<int64_t>(values.size())}, onnx::TensorProto::INT64);
        for (const int64_t value : values) tensor.add_int64_data(value);
        return *this;
    }
    MadeModel& node(const std::string& op_type, const std::vector<std::string>& inputs,
                    const std::vector<std::string>& outputs,
                    const std::vector<With>& attributes = {}) {
        onnx::NodeProto& node = *graph().add_node();
        node.set_op_type(op_type);
        for (const std::string& input : inputs) node.add_input(input);
        for (const std::string& output : outputs) node.add_output(output);
        for (const With& attribute : attributes) *node.add_attribute() = attribute.proto;
        return *this;
    }

    onnx::GraphProto& graph() { return *proto.mutable_graph(); }
    std::string bytes() const { return proto.SerializeAsString(); }

    onnx::ModelProto proto;

private:
    static void describe(onnx::ValueInfoProto& info, const std::string& name,
                         const std::vector<int64_t>& dims, int type) {
        info.set_name(name);
        onnx::TypeProto_Tensor& tensor = *info.mutable_type()->mutable_tensor_type();
        tensor.set_elem_type(type);
        tensor.mutable_shape();
        for (const int64_t size : dims) {
            onnx::TensorShapeProto_Dimension& dim = *tensor.mutable_shape()->add_dim();
            if (size >= 0) {
                dim.set_dim_value(size);
            } else {
                dim.set_dim_param("open");
            }
        }
    }
    onnx::TensorProto& add_tensor(const std::string& name, const std::vector<int64_t>& dims,
                                  int type) {
        onnx::TensorProto& tensor = *graph().add_initializer();
        tensor.set_name(name);
        tensor.set_data_type(type);
        for (const int64_t size : dims) tensor.add_dims(size);
        return tensor;
    }
};

}  // namespace onnx_test
