// SPDX-License-Identifier: Apache-2.0
#include "CountedNew.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocations = 0;
thread_local int untilFailure = 0;
thread_local bool hasFailed = false;

} // namespace

std::size_t OrvTest::Allocations() {
    return allocations;
}

void OrvTest::FailAllocation(int number) {
    untilFailure = number;
    hasFailed = false;
}

bool OrvTest::HasFailedAllocation() {
    return hasFailed;
}

#ifndef ORV_ALLOCATIONS_NOT_COUNTED
// Not inlined: the compiler would see memory of operator new released by free, or the other way round, and warn.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (untilFailure > 0 && --untilFailure == 0) {
        hasFailed = true;
        throw std::bad_alloc();
    }
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
