#include "cpu/allocator.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "platform/assertion.h"

namespace TarnoCPU {

void* fastMalloc(size_t size) {
    // 20 spare bytes: up to 15 for the alignment and a machine word in front of the block that
    // remembers what malloc gave.
    constexpr size_t spare = 20;
    void* raw = size <= SIZE_MAX - spare ? std::malloc(size + spare) : nullptr;
    if (raw == nullptr) {
        TN_ASSERT_AT(false && "malloc failed", "allocator", 62);
        return nullptr;
    }
    const uintptr_t aligned = (reinterpret_cast<uintptr_t>(raw) + 19) & ~uintptr_t{15};
    reinterpret_cast<void**>(aligned)[-1] = raw;
    return reinterpret_cast<void*>(aligned);
}

void fastFree(void* ptr) {
    if (ptr != nullptr) std::free(static_cast<void**>(ptr)[-1]);
}

Allocator::~Allocator() = default;

namespace {

using BlockList = std::list<std::pair<unsigned int, void*>>;

void check_room(const BlockList& list) {
    constexpr size_t longest = 0xffffffe;
    if (list.size() >= longest) throw std::length_error("list<T> too long");
}

// Moves a list node as it is: a warm pool makes no heap call, not even for its own bookkeeping.
void move_to_end(BlockList& from, BlockList::iterator block, BlockList& to) {
    check_room(to);
    to.splice(to.end(), from, block);
}

void free_all(BlockList& list) {
    for (const auto& block : list) fastFree(block.second);
    list.clear();
}

void report_blocks_in_use(const BlockList& payouts) {
    for (const auto& block : payouts) std::fprintf(stderr, "%p still in use\n", block.second);
}

// The stored ratio is compared as it is, in 32 bits and without a shift: from 2 on no free block
// ever fits but by overflow. Tables of memory use were made with this rule, so it stays.
void* take_block(unsigned int ratio, unsigned int size, BlockList& budgets, BlockList& payouts) {
    for (auto it = budgets.begin(); it != budgets.end(); ++it) {
        const unsigned int block_size = it->first;
        if (block_size >= size && ratio * block_size <= size) {
            void* ptr = it->second;
            move_to_end(budgets, it, payouts);
            return ptr;
        }
    }
    check_room(payouts);
    void* ptr = fastMalloc(size);
    payouts.emplace_back(size, ptr);
    return ptr;
}

// False when `ptr` is not in `payouts`.
bool return_block(void* ptr, BlockList& budgets, BlockList& payouts) {
    for (auto it = payouts.begin(); it != payouts.end(); ++it) {
        if (it->second == ptr) {
            move_to_end(payouts, it, budgets);
            return true;
        }
    }
    return false;
}

void store_ratio(float ratio, unsigned int& stored) {
    if (ratio >= 0.0f && ratio <= 1.0f) {
        stored = static_cast<unsigned int>(ratio * 256.0f);
    } else {
        TN_ASSERT_AT(false && "Invalid size compare ratio", "allocator", 68);
    }
}

}  // namespace

PoolAllocator::PoolAllocator() : size_compare_ratio(0) {}

PoolAllocator::~PoolAllocator() {
    clear();
    if (!payouts.empty()) {
        // The text names the other class; hosts know it under this name.
        TN_ASSERT_AT(false && "Unlocked pool allocator destroyed too early", "allocator", 33);
        report_blocks_in_use(payouts);
    }
}

void PoolAllocator::clear() {
    free_all(budgets);
}

void PoolAllocator::set_size_compare_ratio(float ratio) {
    store_ratio(ratio, size_compare_ratio);
}

void* PoolAllocator::fastMalloc(unsigned int size) {
    return take_block(size_compare_ratio, size, budgets, payouts);
}

void PoolAllocator::fastFree(void* ptr) {
    if (return_block(ptr, budgets, payouts)) return;
    TN_ASSERT_AT(false && "Pool allocator get wild", "allocator", 226);
    TarnoCPU::fastFree(ptr);
}

UnlockedPoolAllocator::UnlockedPoolAllocator() : size_compare_ratio(0) {}

UnlockedPoolAllocator::~UnlockedPoolAllocator() {
    clear();
    if (!payouts.empty()) {
        TN_ASSERT_AT(false && "Unlocked pool allocator destroyed too early", "allocator", 242);
        report_blocks_in_use(payouts);
    }
}

void UnlockedPoolAllocator::clear() {
    free_all(budgets);
}

void UnlockedPoolAllocator::set_size_compare_ratio(float ratio) {
    store_ratio(ratio, size_compare_ratio);
}

void* UnlockedPoolAllocator::fastMalloc(unsigned int size) {
    return take_block(size_compare_ratio, size, budgets, payouts);
}

void UnlockedPoolAllocator::fastFree(void* ptr) {
    if (return_block(ptr, budgets, payouts)) return;
    TN_ASSERT_AT(false && "Unlocked pool allocator get wild", "allocator", 353);
    TarnoCPU::fastFree(ptr);
}

}  // namespace TarnoCPU
