// The graphs below tests/onnx/reference with the arrays that PyTorch gave for them.
#pragma once

#include <gtest/gtest.h>
#include <modelkit/onnx/graph.h>
#include <modelkit/onnx/reader.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "support/onnx_fill.h"

namespace onnx_reference {

inline const std::string FOLDER = TARNO_SOURCE_DIR "/tests/onnx/reference/";

inline std::string read_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// The names, without extension, of the graphs in a folder below FOLDER.
inline std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(FOLDER + folder)) {
        if (entry.path().extension() == ".onnx") names.push_back(entry.path().stem().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// The numbers of a '<f8' array in C order; the shape is the graph's affair.
inline std::vector<double> read_doubles(const std::string& path) {
    const std::string file = read_bytes(path);
    std::vector<double> values;
    if (file.size() < 10 || file.compare(0, 6, "\x93NUMPY") != 0) {
        ADD_FAILURE() << path << " is no .npy file";
        return values;
    }
    const size_t start = 10 + static_cast<unsigned char>(file[8]) +
                         256 * static_cast<size_t>(static_cast<unsigned char>(file[9]));
    const std::string header = file.substr(10, start - 10);
    EXPECT_NE(header.find("'<f8'"), std::string::npos) << header;
    EXPECT_NE(header.find("'fortran_order': False"), std::string::npos) << header;
    values.resize((file.size() - start) / sizeof(double));
    std::memcpy(values.data(), file.data() + start, values.size() * sizeof(double));
    return values;
}

struct Expected {
    std::string name;
    std::vector<double> values;
    int64_t every = 1;  ///< only every so many-th row and column of each plane is kept
};

struct ReferenceGraph {
    std::string bytes;  ///< the whole file, weights included
    std::map<std::string, modelkit::onnx::Tensor> inputs;
    std::vector<Expected> expected;
    std::string origin;  ///< whose arrays they are
};

inline std::vector<int64_t> dims_of(const onnx::ValueInfoProto& info) {
    std::vector<int64_t> dims;
    for (const auto& dim : info.type().tensor_type().shape().dim()) {
        // A batch left open is one.
        dims.push_back(dim.has_dim_value() ? dim.dim_value() : 1);
    }
    return dims;
}

/// Reads a graph, puts numbers where rules stand and makes the inputs.
inline ReferenceGraph read_reference(const std::string& folder, const std::string& name,
                                     const std::map<std::string, std::vector<int64_t>>& open = {}) {
    ReferenceGraph result;
    onnx::ModelProto model;
    const std::string path = FOLDER + folder + "/" + name;
    EXPECT_TRUE(model.ParseFromString(read_bytes(path + ".onnx"))) << path;
    onnx::GraphProto& graph = *model.mutable_graph();
    std::vector<float> values;
    for (onnx::TensorProto& tensor : *graph.mutable_initializer()) {
        if (tensor.doc_string().empty()) continue;
        size_t count = 1;
        for (const int64_t dim : tensor.dims()) count *= static_cast<size_t>(dim);
        EXPECT_TRUE(testing_support::fill_by_rule(tensor.doc_string(), count, values))
            << tensor.doc_string();
        tensor.set_raw_data(values.data(), values.size() * sizeof(float));
    }
    for (const onnx::ValueInfoProto& input : graph.input()) {
        if (input.doc_string().empty()) continue;  // a weight
        const auto given = open.find(input.name());
        const std::vector<int64_t> dims = given != open.end() ? given->second : dims_of(input);
        const auto count = static_cast<size_t>(modelkit::onnx::element_count(dims));
        EXPECT_TRUE(testing_support::fill_by_rule(input.doc_string(), count, values))
            << input.doc_string();
        result.inputs[input.name()] = modelkit::onnx::Tensor::of_floats(dims, values);
    }
    for (int i = 0; i < graph.output_size(); ++i) {
        Expected expected;
        expected.name = graph.output(i).name();
        const std::string& note = graph.output(i).doc_string();
        if (note.rfind("every ", 0) == 0) expected.every = std::stoll(note.substr(6));
        expected.values = read_doubles(path + "." + std::to_string(i) + ".npy");
        result.expected.push_back(std::move(expected));
    }
    result.origin = graph.doc_string();
    result.bytes = model.SerializeAsString();
    return result;
}

/// The values that `Expected` keeps of a whole tensor of the shape `dims`.
inline std::vector<double> kept_of(const std::vector<double>& all, const std::vector<int64_t>& dims,
                                   int64_t every) {
    if (every == 1 || dims.size() < 2) return all;
    const auto height = static_cast<size_t>(dims[dims.size() - 2]);
    const auto width = static_cast<size_t>(dims.back());
    const auto step = static_cast<size_t>(every);
    std::vector<double> kept;
    for (size_t start = 0; start + height * width <= all.size(); start += height * width)
        for (size_t y = 0; y < height; y += step)
            for (size_t x = 0; x < width; x += step) kept.push_back(all[start + y * width + x]);
    return kept;
}

inline double largest(const std::vector<double>& values) {
    double most = 0;
    for (const double value : values) most = std::max(most, std::abs(value));
    return most;
}

}  // namespace onnx_reference
