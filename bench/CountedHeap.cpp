// SPDX-License-Identifier: Apache-2.0
#include "CountedHeap.h"

#include <atomic>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);                    // NOLINT(bugprone-reserved-identifier): glibc's own names
void* __libc_calloc(std::size_t count, std::size_t size); // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* memory, std::size_t size);     // NOLINT(bugprone-reserved-identifier)
}

namespace {

std::atomic<std::uint64_t> allocations{0};

void Count() {
    allocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

// They replace the C library's for the whole process.
extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) {
    Count();
    return __libc_malloc(size);
}

extern "C" __attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
    Count();
    return __libc_calloc(count, size);
}

extern "C" __attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) {
    Count();
    return __libc_realloc(memory, size);
}

std::uint64_t OrvBench::HeapAllocations() {
    return allocations.load(std::memory_order_relaxed);
}
