// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

// The sanitizers bring operators of their own, which may not be replaced.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define ORV_ALLOCATIONS_NOT_COUNTED
#endif
#endif

namespace OrvTest {

/// How often this thread has called operator new. CountedNew.cpp among the sources of a test program replaces the
/// operators of the whole program; where ORV_ALLOCATIONS_NOT_COUNTED is defined it does not, and the answer is 0.
std::size_t Allocations();

/// From now on this thread's `number`th call of operator new fails, counted from 1, and no other; 0 for none.
void FailAllocation(int number);

/// Whether the one that was to fail has come.
bool HasFailedAllocation();

} // namespace OrvTest
