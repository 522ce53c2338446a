// Byte images with guards around them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

namespace testing_support {

/// `size` bytes of `fill` between two runs of guard bytes. In a build with AddressSanitizer the
/// heap block ends with them, so that it sees reads behind the end too.
class GuardedBytes {
public:
    explicit GuardedBytes(size_t size, unsigned char fill = 0xcd)
        : bytes(guard_size + size + guards_behind, guard), size(size) {
        std::fill(data(), data() + size, fill);
        bytes.shrink_to_fit();
    }
    unsigned char* data() { return bytes.data() + guard_size; }
    std::vector<unsigned char> contents() const {
        const unsigned char* start = bytes.data() + guard_size;
        return std::vector<unsigned char>(start, start + size);
    }
    bool guards_intact() const {
        for (size_t i = 0; i < bytes.size(); ++i) {
            if ((i < guard_size || i >= guard_size + size) && bytes[i] != guard) return false;
        }
        return true;
    }

private:
    static constexpr size_t guard_size = 64;
#if defined(__SANITIZE_ADDRESS__)
    static constexpr size_t guards_behind = 0;
#else
    static constexpr size_t guards_behind = guard_size;
#endif
    static constexpr unsigned char guard = 0xa5;
    std::vector<unsigned char> bytes;
    size_t size;
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
