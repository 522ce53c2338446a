// Allocators that keep count of what they hand out and stop at a limit.
#pragma once

#include <tarno/cpu.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "numbers.h"

namespace tool {

/// What the allocators of a run have handed out and taken, in bytes.
struct MemoryMeter {
    int64_t alive = 0;  ///< in tensors and scratch right now
    int64_t peak = 0;   ///< the most of that so far
    int64_t held = 0;   ///< taken from the heap; of pools more than the peak, as a pool gives out
                        ///< any block that is large enough, however much larger
    int64_t limit = 0;  ///< of `held`
    bool exceeded = false;
    std::string refusal;  ///< what an error says when a run failed at the limit

    /// `taken` bytes of the command's limit are not for these allocators.
    MemoryMeter(int64_t memory_limit, int64_t taken)
        : limit(memory_limit - taken),
          refusal("expected at most " + bytes_text(memory_limit) +
                  " for weights, tensors and scratch, found a need of more (see --memory-limit)") {}

    /// Whether a block from the heap is beyond the limit.
    bool take(int64_t size) {
        held += size;
        exceeded = exceeded || held > limit;
        return held <= limit;
    }
    void hand_out(int64_t size) {
        alive += size;
        peak = std::max(peak, alive);
    }
};

/// A pool under watch. The bookkeeping costs time and heap calls, so timed runs go straight to
/// `pool` once it has stopped growing.
template <typename Pool>
class MeteredPool : public TarnoCPU::Allocator {
public:
    explicit MeteredPool(MemoryMeter& meter) : meter(meter) {}

    void* fastMalloc(unsigned int size) override {
        void* block = pool.fastMalloc(size);
        if (block == nullptr) {
            // The pool has booked the null, and would complain about it in the end.
            pool.fastFree(nullptr);
            return nullptr;
        }
        if (blocks.insert(block).second && !meter.take(size)) {
            pool.fastFree(block);
            return nullptr;
        }
        sizes[block] = size;
        meter.hand_out(size);
        return block;
    }

    void fastFree(void* block) override {
        const auto found = sizes.find(block);
        if (found != sizes.end()) {
            meter.alive -= found->second;
            sizes.erase(found);
        }
        pool.fastFree(block);
    }

    Pool pool;

private:
    MemoryMeter& meter;
    std::unordered_set<void*> blocks;               ///< all that the pool ever gave out
    std::unordered_map<void*, unsigned int> sizes;  ///< of those that are out
};

/// The two pools of a host.
class MeteredPools {
public:
    MeteredPools(int64_t memory_limit, int64_t taken)
        : meter(memory_limit, taken), blobs(meter), workspace(meter) {}

    /// For `Option` and for extractors: under watch until the pools have settled.
    TarnoCPU::Allocator* blob_allocator() {
        return settled() ? static_cast<TarnoCPU::Allocator*>(&blobs.pool) : &blobs;
    }
    TarnoCPU::Allocator* workspace_allocator() {
        return settled() ? static_cast<TarnoCPU::Allocator*>(&workspace.pool) : &workspace;
    }

    /// Behind each run under watch.
    void note_run() {
        ++watched_runs;
        runs_without_growth = meter.held == held_before ? runs_without_growth + 1 : 0;
        held_before = meter.held;
    }
    /// Whether the last ten runs took nothing from the heap: further runs of the same tensors
    /// won't.
    bool settled() const { return runs_without_growth >= runs_to_settle; }

    MemoryMeter meter;
    int watched_runs = 0;

private:
    static constexpr int runs_to_settle = 10;

    int runs_without_growth = 0;
    int64_t held_before = -1;
    MeteredPool<TarnoCPU::UnlockedPoolAllocator> blobs;
    MeteredPool<TarnoCPU::PoolAllocator> workspace;
};

/// The plain heap under watch: nothing is kept, what is alive is what is held.
class MeteredHeap : public TarnoCPU::Allocator {
public:
    MeteredHeap(int64_t memory_limit, int64_t taken) : meter(memory_limit, taken) {}

    void* fastMalloc(unsigned int size) override {
        if (!meter.take(size)) {
            meter.held -= size;
            return nullptr;
        }
        void* block = TarnoCPU::fastMalloc(size);
        if (block == nullptr) {
            meter.held -= size;
            return nullptr;
        }
        sizes[block] = size;
        meter.hand_out(size);
        return block;
    }

    void fastFree(void* block) override {
        const auto found = sizes.find(block);
        if (found != sizes.end()) {
            meter.alive -= found->second;
            meter.held -= found->second;
            sizes.erase(found);
        }
        TarnoCPU::fastFree(block);
    }

    MemoryMeter meter;

private:
    std::unordered_map<void*, unsigned int> sizes;
};

}  // namespace tool
