// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>

/// What the program's poll() does instead of the C library's, for tests of what a delivery thread waits for.
namespace OrvTest {

/// How often a delivery thread has begun to wait.
extern std::atomic<unsigned> polls;
/// How many delivery threads are in a sleep that LongSleep has made long.
extern std::atomic<int> longSleepers;
/// Whether there is always input where the end of a connection waits for it.
extern std::atomic<bool> inputNeverPauses;

/// While it lives, a delivery thread that wants to sleep for a second or less sleeps until something happens.
class LongSleep {
public:
    LongSleep();
    ~LongSleep();
    LongSleep(const LongSleep&) = delete;
    LongSleep& operator=(const LongSleep&) = delete;
};

/// From now on a poll of a single descriptor for `events` by this thread, as at the end of a connection, begins only
/// once `until` is true, and then takes its whole limit. So a test has more time to act meanwhile than the limit gives.
void HoldPollsOfThisThread(short events, const std::atomic<bool>& until);

} // namespace OrvTest
