// SPDX-License-Identifier: Apache-2.0
#include "CountedNew.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocations = 0;

} // namespace

std::size_t OrvTest::Allocations() {
    return allocations;
}

#ifndef ORV_ALLOCATIONS_NOT_COUNTED
// Not inlined: the compiler would see memory of operator new released by free, or the other way round, and warn.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

#endif
