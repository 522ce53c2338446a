// The plain aligned heap, the allocator interface, and the two pools that keep freed blocks.
#pragma once

#include <cstddef>
#include <list>
#include <utility>

#include "../platform/export.h"

namespace TarnoCPU {

/// A block of `size` bytes, aligned to 16, with one machine word of bookkeeping in front of it.
/// Returns null, after the assertion `false && "malloc failed"`, when there is no memory.
TN_API void* fastMalloc(size_t size);

/// Gives back a block of `fastMalloc`. Null is allowed.
TN_API void fastFree(void* ptr);

/// Where a `Mat` takes its block from. An allocator must outlive every `Mat` that used it.
class TN_API Allocator {
public:
    virtual ~Allocator();
    /// A block of at least `size` bytes aligned to 16, or null.
    virtual void* fastMalloc(unsigned int size) = 0;
    virtual void fastFree(void* ptr) = 0;
};

/// Keeps freed blocks for later requests, so that steady-state inference needs no heap call.
/// For use from one thread: there is no lock, whatever the name may promise. Not to be copied while
/// it holds blocks. Destroyed with blocks in use it asserts, prints them to standard error and leaves
/// them allocated. Throws std::length_error beyond 0xffffffe blocks.
class TN_API PoolAllocator : public Allocator {
public:
    PoolAllocator();
    ~PoolAllocator() override;

    /// Frees the blocks that nobody holds. Blocks in use stay valid.
    void clear();

    /// Stores trunc(ratio * 256) for 0 <= ratio <= 1; anything else is an assertion and changes
    /// nothing. The stored number multiplies the block size when a block is looked for, with no
    /// shift behind it: 0, the start value, accepts any block that is large enough, 1 accepts
    /// exact fits, larger values accept nothing.
    void set_size_compare_ratio(float ratio);

    void* fastMalloc(unsigned int size) override;
    /// A pointer that is not of this pool is an assertion, and is then freed through the plain heap.
    void fastFree(void* ptr) override;

private:
    unsigned int size_compare_ratio;
    std::list<std::pair<unsigned int, void*>> budgets;
    std::list<std::pair<unsigned int, void*>> payouts;
};

/// The same pool under its second name, with assertion texts and lines of its own.
class TN_API UnlockedPoolAllocator : public Allocator {
public:
    UnlockedPoolAllocator();
    ~UnlockedPoolAllocator() override;
    /// As those of `PoolAllocator`.
    void clear();
    void set_size_compare_ratio(float ratio);
    void* fastMalloc(unsigned int size) override;
    void fastFree(void* ptr) override;

private:
    unsigned int size_compare_ratio;
    std::list<std::pair<unsigned int, void*>> budgets;
    std::list<std::pair<unsigned int, void*>> payouts;
};

}  // namespace TarnoCPU
