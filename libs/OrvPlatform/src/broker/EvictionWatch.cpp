// SPDX-License-Identifier: Apache-2.0
#include "broker/EvictionWatch.h"

namespace OrvPlatform {

void EvictionWatch::Accepted(Time now, int attempt) {
    acceptedAt = now;
    if (attempt > 1)
        evictions = 0;
}

void EvictionWatch::Lost(Time now, bool silently) {
    const bool evicted = silently && now - acceptedAt < YOUNG;
    evictions = evicted ? evictions + 1 : 0;
}

} // namespace OrvPlatform
