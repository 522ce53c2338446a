// A file of given bytes for the length of a scope.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace testing_support {

/// A path of its own in the folder for temporary files, removed at the end. Tests of one suite run
/// side by side in several processes.
class TemporaryFile {
public:
    TemporaryFile() {
        name = ::testing::TempDir() + "tarno_XXXXXX";
        const int descriptor = mkstemp(name.data());
        if (descriptor >= 0) close(descriptor);
    }
    explicit TemporaryFile(const std::vector<unsigned char>& bytes) : TemporaryFile() {
        write(bytes);
    }
    ~TemporaryFile() { std::remove(name.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const char* path() const { return name.c_str(); }

    void write(const std::vector<unsigned char>& bytes) const {
        std::ofstream out(name, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    }

    std::vector<unsigned char> read() const {
        std::ifstream in(name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

private:
    std::string name;
};

}  // namespace testing_support
