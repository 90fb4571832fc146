// SPDX-License-Identifier: Apache-2.0
#include "broker/EvictionWatch.h"

#include <gtest/gtest.h>

#include <chrono>

namespace OrvPlatform {

using namespace std::chrono_literals;

class AnEvictionWatch : public testing::Test {
protected:
    void BeEvicted(std::chrono::steady_clock::duration life, int attempt = 1, bool silently = true) {
        now += 250ms;
        watch.Accepted(now, attempt);
        now += life;
        watch.Lost(now, silently);
    }

    EvictionWatch watch;
    EvictionWatch::Time now{};
};

TEST_F(AnEvictionWatch, SuspectsAnotherClientAfterThreeYoungDeathsInARow) {
    BeEvicted(2s);
    BeEvicted(2s);
    EXPECT_FALSE(watch.Suspects());
    BeEvicted(9999ms);
    EXPECT_TRUE(watch.Suspects());
}

TEST_F(AnEvictionWatch, TakesAConnectionOfTenSecondsForASoundOne) {
    BeEvicted(2s);
    BeEvicted(2s);
    BeEvicted(10s);
    BeEvicted(2s);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, KnowsThatABrokerThatWasAwayThrowsNobodyOff) {
    for (int restart = 0; restart < 10; ++restart)
        BeEvicted(100ms, 2);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, GivesUpItsSuspicionOnceTheBrokerIsSeenToBeAway) {
    for (int eviction = 0; eviction < 3; ++eviction)
        BeEvicted(1s);
    watch.Accepted(now, 2);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, KnowsThatABrokenLinkIsNoEviction) {
    for (int fault = 0; fault < 10; ++fault)
        BeEvicted(100ms, 1, false);
    EXPECT_FALSE(watch.Suspects());
}

TEST_F(AnEvictionWatch, GivesUpItsSuspicionOnceAConnectionLasts) {
    for (int eviction = 0; eviction < 5; ++eviction)
        BeEvicted(1s);
    BeEvicted(60s);
    EXPECT_FALSE(watch.Suspects());
}

} // namespace OrvPlatform
