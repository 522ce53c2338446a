// Arrays of numbers in .npy files, version 1.0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

struct NpyArray {
    std::vector<int64_t> shape;  ///< at least one dimension, each at least 1
    std::vector<float> values;   ///< C order: the last dimension runs fastest
};

/// Whether a file begins as an .npy file does.
bool is_npy(const std::string& path);

/// Dimensions of a tensor of the engines.
constexpr size_t most_tensor_dimensions = 3;

/// The shape alone, of 1 to `most_dimensions`; checks everything but reads only the header.
std::vector<int64_t> read_npy_shape(const std::string& path,
                                    size_t most_dimensions = most_tensor_dimensions);

/// Reads '<f4', '<f8' or '|u1' in C order; doubles are rounded to float, bytes keep their value.
/// Throws CommandError for anything else, and before memory is taken when the shape and the size of
/// the file do not fit.
NpyArray read_npy(const std::string& path, size_t most_dimensions = most_tensor_dimensions);

/// The bytes of a '<f4' file of the shape (c, h, w).
std::string npy_bytes(const float* values, int c, int h, int w);

}  // namespace tool
