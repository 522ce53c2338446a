// A model converted from bytes, saved and proven.
#pragma once

#include <gtest/gtest.h>
#include <modelkit/model_writer.h>
#include <modelkit/onnx/converter.h>
#include <modelkit/onnx/proof.h>
#include <modelkit/onnx/reader.h>
#include <tarno/log.h>
#include <tarno/model.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/recorders.h"
#include "support/temporary_file.h"

namespace onnx_test {

using modelkit::onnx::Conversion;
using modelkit::onnx::ConvertOptions;
using modelkit::onnx::Engines;
using modelkit::onnx::Graph;
using modelkit::onnx::Proof;
using modelkit::onnx::Tensor;
using modelkit::onnx::ValueProof;

struct Converted {
    /// Of reading and converting, or of running the proof.
    modelkit::Status status = modelkit::Status::success();
    Graph original;
    Conversion conversion;
    Proof proof;
    size_t assertions = 0;

    /// The kinds of the layers, in order, without the inputs.
    std::vector<std::string> kinds() const {
        std::vector<std::string> list;
        for (const auto& layer : conversion.layers) {
            const std::string kind = zq_layer_type_name(layer.type);
            if (kind.find("Input") == std::string::npos) list.push_back(kind);
        }
        return list;
    }
    /// Each number as the engine gives it for the first output.
    const std::vector<double>& numbers() const { return proof.outputs.at(0).numbers; }
};

inline Converted convert_only(const std::string& bytes, const ConvertOptions& options = {}) {
    Converted result;
    result.status = modelkit::onnx::read_graph(bytes.data(), bytes.size(), "", result.original);
    if (result.status) {
        result.status = modelkit::onnx::convert(result.original, options, result.conversion);
    }
    return result;
}

/// `file` in place of the converted bytes where it is not empty. Inputs that are not given are
/// random.
inline void prove_converted(Converted& result, std::map<std::string, Tensor> inputs = {},
                            bool all_layers = false, const std::vector<unsigned char>& file = {}) {
    testing_support::AssertRecorder assertions;
    testing_support::LogRecorder lines;
    const testing_support::TemporaryFile path(file.empty() ? result.conversion.file : file);
    for (auto& [name, tensor] : modelkit::onnx::random_inputs(result.conversion, 7)) {
        inputs.emplace(name, tensor);
    }
    result.status = modelkit::onnx::prove(result.original, result.conversion, path.path(), inputs,
                                          all_layers, {}, result.proof);
    result.assertions = assertions.count();
}

inline Converted convert_and_prove(const std::string& bytes,
                                   const std::map<std::string, Tensor>& inputs = {},
                                   const ConvertOptions& options = {}) {
    Converted result = convert_only(bytes, options);
    if (result.status) prove_converted(result, inputs);
    return result;
}

inline void expect_proof(const Converted& result) {
    ASSERT_TRUE(result.status) << result.status.message();
    EXPECT_EQ(result.assertions, 0u);
    ASSERT_FALSE(result.proof.outputs.empty());
    for (const ValueProof& output : result.proof.outputs) {
        EXPECT_LE(output.unexplained, output.bound) << output.name;
        EXPECT_LE(output.by_halves.maximum, output.halves_bound) << output.name;
    }
}

}  // namespace onnx_test
