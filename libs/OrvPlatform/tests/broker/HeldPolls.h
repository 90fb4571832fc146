// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>

namespace OrvTest {

/// From now on a poll of a single descriptor for `events` by this thread, as at the end of a connection, begins only
/// once `until` is true, and then takes its whole limit. So a test has more time to act meanwhile than the limit gives.
void HoldPollsOfThisThread(short events, const std::atomic<bool>& until);

} // namespace OrvTest
