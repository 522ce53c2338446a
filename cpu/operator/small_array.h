// A table of a length that is known only at run time, on the stack while it is short.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace TarnoCPU {

/// `Inline` elements without a heap call, more from the general heap. For plain data; the elements
/// are undefined after `resize`.
template <typename T, int64_t Inline>
class SmallArray {
public:
    SmallArray() = default;
    SmallArray(const SmallArray&) = delete;
    SmallArray& operator=(const SmallArray&) = delete;

    /// False when there is no memory.
    bool resize(int64_t count) {
        elements = inline_elements;
        if (count <= Inline) return true;
        heap_elements.reset(new (std::nothrow) T[static_cast<size_t>(count)]);
        elements = heap_elements.get();
        return elements != nullptr;
    }

    T& operator[](int64_t i) { return elements[i]; }
    const T& operator[](int64_t i) const { return elements[i]; }
    const T* data() const { return elements; }

private:
    T inline_elements[Inline];
    std::unique_ptr<T[]> heap_elements;
    T* elements = inline_elements;
};

}  // namespace TarnoCPU
