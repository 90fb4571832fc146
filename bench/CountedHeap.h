// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace OrvBench {

/// Allocations of this process so far, those inside C libraries included.
std::uint64_t HeapAllocations();

} // namespace OrvBench
