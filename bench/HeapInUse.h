// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace OrvBench {

/// Bytes that this process has allocated and not freed, those of C libraries included. Unlike mallinfo2 it does not
/// count what the allocator keeps for a thread's next allocation.
std::int64_t HeapInUse();

} // namespace OrvBench
