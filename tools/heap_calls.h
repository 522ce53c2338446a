// Counts the calls that reach the heap.
#pragma once

#include <cstdint>

namespace tool {

/// False in a build whose heap belongs to a sanitizer, and with another C library.
bool heap_calls_are_counted();

/// Counts between its start and `stop`, on all threads. One at a time.
class HeapCalls {
public:
    HeapCalls();
    void stop();

    uint64_t allocations = 0;  ///< malloc, calloc, realloc and the aligned forms; `new` is malloc
    uint64_t frees = 0;
};

}  // namespace tool
