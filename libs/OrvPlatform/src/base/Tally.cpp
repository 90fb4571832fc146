// SPDX-License-Identifier: Apache-2.0
#include "base/Tally.h"

#include "OrvPlatform/Counters.h"

namespace OrvPlatform {

Tallies tallies;

Counters ReadCounters() noexcept {
    Counters counters;
    counters.brokerLosses = tallies.brokerLosses.Value();
    counters.refusedPublications = tallies.refusedPublications.Value();
    counters.lostLogRecords = tallies.lostLogRecords.Value();
    return counters;
}

} // namespace OrvPlatform
