// SPDX-License-Identifier: Apache-2.0
#include "base/Backoff.h"

#include <gtest/gtest.h>
#include <set>

namespace OrvPlatform {
namespace {

using namespace std::chrono_literals;

TEST(ABackoff, DoublesFromAQuarterSecondToFourSecondsAndStaysThere) {
    Backoff backoff(1);
    for (const auto full : {250ms, 500ms, 1000ms, 2000ms, 4000ms, 4000ms, 4000ms}) {
        const auto pause = backoff.Next();
        EXPECT_LE(pause, full);
        EXPECT_GE(pause, full * 3 / 4);
    }
}

TEST(ABackoff, BeginsAnewAfterAReset) {
    Backoff backoff(1);
    for (int attempt = 0; attempt < 10; ++attempt)
        backoff.Next();
    backoff.Reset();
    EXPECT_LE(backoff.Next(), 250ms);
    EXPECT_GT(backoff.Next(), 250ms);
}

TEST(ABackoff, DiffersFromOneClientToTheNext) {
    std::set<std::chrono::milliseconds> pauses;
    for (std::uint32_t seed = 1; seed <= 20; ++seed)
        pauses.insert(Backoff(seed).Next());
    EXPECT_GT(pauses.size(), 5U);
}

TEST(ABackoffWithoutChance, DoublesFromTheFirstPauseToTheLongest) {
    Backoff backoff(20ms, 100ms);
    for (const auto pause : {20ms, 40ms, 80ms, 100ms, 100ms})
        EXPECT_EQ(backoff.Next(), pause);
    backoff.Reset();
    EXPECT_EQ(backoff.Next(), 20ms);
}

} // namespace
} // namespace OrvPlatform
