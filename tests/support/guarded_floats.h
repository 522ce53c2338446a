// A view of floats with guards around them.
#pragma once

#include <tarno/cpu.h>

#include <algorithm>
#include <vector>

namespace testing_support {

/// A tensor of a shape over memory that begins `offset` floats behind a 16-byte boundary, with
/// guards on both sides; in a build with AddressSanitizer the heap block ends with the tensor, so
/// that it sees reads behind the end too.
class GuardedFloats {
public:
    GuardedFloats(const TarnoCPU::TensorShape& shape, const std::vector<float>& values,
                  size_t offset = 0)
        : shape(shape), start(guard_size + offset), size(values.size()) {
        storage.assign(start + size + guards_behind, guard);
        storage.shrink_to_fit();
        std::copy(values.begin(), values.end(), storage.begin() + static_cast<ptrdiff_t>(start));
    }
    TarnoCPU::Mat view() { return TarnoCPU::Mat(shape, storage.data() + start, nullptr); }
    std::vector<float> values() const {
        return std::vector<float>(storage.data() + start, storage.data() + start + size);
    }
    bool guards_intact() const {
        for (size_t i = 0; i < storage.size(); ++i) {
            if ((i < start || i >= start + size) && storage[i] != guard) return false;
        }
        return true;
    }

private:
    static constexpr size_t guard_size = 16;
#if defined(__SANITIZE_ADDRESS__)
    static constexpr size_t guards_behind = 0;
#else
    static constexpr size_t guards_behind = guard_size;
#endif
    static constexpr float guard = -12345.5f;
    TarnoCPU::TensorShape shape;
    size_t start;
    size_t size;
    std::vector<float> storage;
};

}  // namespace testing_support
