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

} // namespace OrvTest
