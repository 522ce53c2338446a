// .npy files, put together and taken apart by hand.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tools/command.h"

namespace command_test {

/// A whole .npy file around `data`.
inline std::string npy_file(const std::string& descr, const std::string& shape,
                            const std::string& data, bool fortran = false) {
    std::string header = "{'descr': '" + descr +
                         "', 'fortran_order': " + (fortran ? "True" : "False") +
                         ", 'shape': " + shape + ", }";
    while ((10 + header.size() + 1) % 64 != 0)
        header += ' ';
    header += '\n';
    std::string file = "\x93NUMPY";
    file += '\1';
    file += '\0';
    file += static_cast<char>(header.size() & 0xff);
    file += static_cast<char>(header.size() >> 8);
    return file + header + data;
}

template <typename Number>
std::string raw(const std::vector<Number>& numbers) {
    return std::string(reinterpret_cast<const char*>(numbers.data()),
                       numbers.size() * sizeof(Number));
}

struct Array {
    int c = 0;
    int h = 0;
    int w = 0;
    std::vector<float> values;

    float at(int q, int y, int x) const { return values[static_cast<size_t>((q * h + y) * w + x)]; }
};

/// Reads what the command wrote: version 1.0, <f4, three dimensions, the data at a multiple of 64.
inline Array read_array(const std::string& path) {
    const std::string file = read_file(path);
    Array array;
    if (file.size() < 10 || file.compare(0, 6, "\x93NUMPY") != 0 || file[6] != 1 || file[7] != 0) {
        ADD_FAILURE() << path << " is no .npy file of version 1.0";
        return array;
    }
    const size_t length = static_cast<unsigned char>(file[8]) +
                          256 * static_cast<size_t>(static_cast<unsigned char>(file[9]));
    EXPECT_EQ((10 + length) % 64, 0u);
    const std::string header = file.substr(10, length);
    const int found = std::sscanf(
        header.c_str(), "{'descr': '<f4', 'fortran_order': False, 'shape': (%d, %d, %d), }",
        &array.c, &array.h, &array.w);
    EXPECT_EQ(found, 3) << header;
    const size_t count = static_cast<size_t>(array.c) * array.h * array.w;
    EXPECT_EQ(file.size(), 10 + length + count * 4);
    array.values.resize(count);
    std::memcpy(array.values.data(), file.data() + 10 + length,
                std::min(count * 4, file.size() - 10 - length));
    return array;
}

}  // namespace command_test
