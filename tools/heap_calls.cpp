#include "heap_calls.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define TARNO_COUNTS_HEAP_CALLS 1
#else
#define TARNO_COUNTS_HEAP_CALLS 0
#endif

namespace {

std::atomic<bool> counting{false};
std::atomic<uint64_t> allocation_count{0};
std::atomic<uint64_t> free_count{0};

}  // namespace

#if TARNO_COUNTS_HEAP_CALLS

// These take the place of the C library's functions for the whole process, the shared library
// included: the dynamic linker finds the executable's first. The C library keeps its own under
// another name for the purpose.
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

static void count_allocation() {
    if (counting.load(std::memory_order_relaxed)) {
        allocation_count.fetch_add(1, std::memory_order_relaxed);
    }
}

void* malloc(size_t size) {
    count_allocation();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    count_allocation();
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    count_allocation();
    return __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
    count_allocation();
    void* made = __libc_memalign(alignment, size);
    if (made == nullptr) return ENOMEM;
    *block = made;
    return 0;
}

void free(void* block) {
    if (block != nullptr && counting.load(std::memory_order_relaxed)) {
        free_count.fetch_add(1, std::memory_order_relaxed);
    }
    __libc_free(block);
}

}  // extern "C"

#endif

namespace tool {

bool heap_calls_are_counted() {
    return TARNO_COUNTS_HEAP_CALLS != 0;
}

HeapCalls::HeapCalls() {
    allocation_count = 0;
    free_count = 0;
    counting = true;
}

void HeapCalls::stop() {
    counting = false;
    allocations = allocation_count;
    frees = free_count;
}

}  // namespace tool
