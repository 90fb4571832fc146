// SPDX-License-Identifier: Apache-2.0
#include "base/Deadline.h"

#include <gtest/gtest.h>

namespace OrvPlatform {
namespace {

using namespace std::chrono_literals;

class ADeadline : public testing::Test {
protected:
    const std::chrono::steady_clock::time_point now{1000s};
};

TEST_F(ADeadline, IsNotReachedBeforeItsTime) {
    EXPECT_EQ(TimeUntil(now + 1500us, now), 2ms);
    EXPECT_EQ(TimeUntil(now + 2ms, now), 2ms);
    EXPECT_EQ(TimeUntil(now, now), 0ms);
    EXPECT_EQ(TimeUntil(now - 1h, now), 0ms);
}

TEST_F(ADeadline, IsWaitedForAMinuteAtATime) {
    EXPECT_EQ(PollTimeout(now + 1ns, now), 1);
    EXPECT_EQ(PollTimeout(now + 60s, now), 60'000);
    EXPECT_EQ(PollTimeout(now + 24h * 365, now), 60'000);
    EXPECT_EQ(PollTimeout(now - 1s, now), 0);
}

TEST_F(ADeadline, MayNeverCome) {
    EXPECT_EQ(PollTimeout(std::chrono::steady_clock::time_point::max(), now), -1);
}

} // namespace
} // namespace OrvPlatform
