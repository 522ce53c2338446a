// Small models, the numbers that they give once they are converted, and refusals.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/made_model.h"

namespace onnx_test {

using Kinds = std::vector<std::string>;
using Numbers = std::vector<double>;
using Ints = std::vector<int64_t>;

inline Tensor picture(const std::vector<int64_t>& dims, const std::vector<float>& values) {
    return Tensor::of_floats(dims, values);
}

/// 0, 1, 2 and so on.
inline Tensor ascending(const Ints& dims) {
    size_t count = 1;
    for (const int64_t size : dims) count *= static_cast<size_t>(size);
    std::vector<float> values(count);
    for (size_t i = 0; i < count; ++i) values[i] = static_cast<float>(i);
    return Tensor::of_floats(dims, values);
}

inline void expect_numbers(const Converted& result, const Numbers& expected, double tolerance = 0) {
    ASSERT_TRUE(result.status) << result.status.message();
    ASSERT_EQ(result.numbers().size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NEAR(result.numbers()[i], expected[i], tolerance) << i;
    }
}

inline void expect_refusal(const Converted& result, const std::string& node,
                           const std::string& reason) {
    ASSERT_FALSE(result.status) << "was converted";
    const std::string& line = result.status.message();
    EXPECT_NE(line.find(node), std::string::npos) << line;
    EXPECT_NE(line.find(reason), std::string::npos) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    EXPECT_TRUE(result.conversion.file.empty());
}

/// One input x, a node, one output y.
inline MadeModel one_node(const std::string& op_type, const std::vector<int64_t>& dims,
                          const std::vector<With>& attributes = {}, int opset = 13) {
    MadeModel model(opset);
    model.input("x", dims).output("y").node(op_type, {"x"}, {"y"}, attributes);
    return model;
}

/// The converter tells of it with a note that holds `part`.
inline void expect_note(const Converted& result, const std::string& part) {
    ASSERT_TRUE(result.status) << result.status.message();
    std::string all;
    for (const std::string& note : result.conversion.notes) all += note + "\n";
    EXPECT_NE(all.find(part), std::string::npos) << "\"" << part << "\" is not in: " << all;
}

}  // namespace onnx_test
