// Byte images with guards around them.
#pragma once

#include <cstddef>
#include <random>
#include <vector>

namespace testing_support {

/// `size` bytes of `fill` between two runs of guard bytes.
class GuardedBytes {
public:
    explicit GuardedBytes(size_t size, unsigned char fill = 0xcd)
        : bytes(size + 2 * guard_size, guard), size(size) {
        for (size_t i = 0; i < size; ++i)
            data()[i] = fill;
    }
    unsigned char* data() { return bytes.data() + guard_size; }
    std::vector<unsigned char> contents() const {
        return std::vector<unsigned char>(bytes.begin() + guard_size,
                                          bytes.begin() + guard_size + size);
    }
    bool guards_intact() const {
        for (size_t i = 0; i < guard_size; ++i) {
            if (bytes[i] != guard || bytes[guard_size + size + i] != guard) return false;
        }
        return true;
    }

private:
    static constexpr ptrdiff_t guard_size = 64;
    static constexpr unsigned char guard = 0xa5;
    std::vector<unsigned char> bytes;
    ptrdiff_t size;
};

/// Uniform bytes of a seed that the failing test prints.
inline std::vector<unsigned char> random_bytes(size_t count, unsigned int seed, int low = 0,
                                               int high = 255) {
    std::mt19937 engine(seed);
    std::uniform_int_distribution<int> distribution(low, high);
    std::vector<unsigned char> values(count);
    for (unsigned char& value : values)
        value = static_cast<unsigned char>(distribution(engine));
    return values;
}

}  // namespace testing_support
