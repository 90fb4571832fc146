// SPDX-License-Identifier: Apache-2.0
#include "HeapInUse.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);                    // NOLINT(bugprone-reserved-identifier): glibc's own names
void* __libc_calloc(std::size_t count, std::size_t size); // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* memory, std::size_t size);     // NOLINT(bugprone-reserved-identifier)
void __libc_free(void* memory);                           // NOLINT(bugprone-reserved-identifier)
}

namespace {

std::atomic<std::int64_t> inUse{0};

std::int64_t SizeOf(void* memory) {
    return static_cast<std::int64_t>(malloc_usable_size(memory));
}

void* Counted(void* memory) {
    inUse.fetch_add(SizeOf(memory), std::memory_order_relaxed);
    return memory;
}

} // namespace

// They replace the C library's for the whole process.
extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) {
    return Counted(__libc_malloc(size));
}

extern "C" __attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
    return Counted(__libc_calloc(count, size));
}

extern "C" __attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) {
    inUse.fetch_sub(SizeOf(memory), std::memory_order_relaxed);
    return Counted(__libc_realloc(memory, size));
}

extern "C" __attribute__((visibility("default"))) void free(void* memory) {
    inUse.fetch_sub(SizeOf(memory), std::memory_order_relaxed);
    __libc_free(memory);
}

std::int64_t OrvBench::HeapInUse() {
    return inUse.load(std::memory_order_relaxed);
}
