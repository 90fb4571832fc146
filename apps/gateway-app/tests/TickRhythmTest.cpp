// SPDX-License-Identifier: Apache-2.0
#include "TickRhythm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using OrvStackSdk::OrvEvent;
using Time = TickRhythm::Time;

/// The library's side of the rhythm, in virtual time: the application ticks when the rhythm says so.
class TheRhythm : public testing::Test {
protected:
    void Report(OrvEvent event) { rhythm.Reported(event, now); }
    /// Ticks until `end`; returns when.
    std::vector<Time> TickUntil(Time end) {
        std::vector<Time> ticks;
        while (now + rhythm.Next(now) <= end) {
            now += rhythm.Next(now);
            rhythm.Ticked(now);
            ticks.push_back(now);
        }
        now = end;
        return ticks;
    }
    std::size_t TicksIn(std::chrono::milliseconds time) { return TickUntil(now + time).size(); }
    void BeConnected() {
        Report(OrvEvent::CELLULAR_IP_GAINED);
        Report(OrvEvent::CLOUD_CONNECTED);
        TickUntil(now + 10min);
    }
    /// Returns the tick with which the library's ten seconds begin.
    Time LoseCloud() {
        Report(OrvEvent::CLOUD_DISCONNECTED);
        now += rhythm.Next(now);
        rhythm.Ticked(now);
        return now;
    }

    TickRhythm rhythm;
    Time now = Time() + 1h;
};

TEST_F(TheRhythm, IsFourTicksASecondWhileAllIsWell) {
    BeConnected();
    EXPECT_EQ(TicksIn(10s), 40U);
}

TEST_F(TheRhythm, LetsTheLibrarySeeALossWithin40Milliseconds) {
    BeConnected();
    const Time lost = now;
    EXPECT_LE(LoseCloud() - lost, 40ms);
}

TEST_F(TheRhythm, MeetsTheEndOfTheTenSeconds) {
    BeConnected();
    const Time end = LoseCloud() + 10s;
    const std::vector<Time> ticks = TickUntil(end + 1s);
    const auto first = std::find_if(ticks.begin(), ticks.end(), [&](Time tick) { return tick >= end; });
    ASSERT_NE(first, ticks.end());
    EXPECT_LE(*first - end, 2ms);
}

TEST_F(TheRhythm, IsQuickForAPokeThatSucceedsWithinTwoSeconds) {
    BeConnected();
    const Time poke = LoseCloud() + 10s;
    TickUntil(poke + 1ms);
    Time last = now;
    for (const Time tick : TickUntil(poke + 2s)) {
        EXPECT_LE(tick - last, 40ms);
        last = tick;
    }
}

TEST_F(TheRhythm, TicksNoMoreInTheFirstRoundThanFourTimesASecond) {
    BeConnected();
    TickUntil(LoseCloud() + 10s);
    EXPECT_LE(TicksIn(20s), 80U);
}

TEST_F(TheRhythm, TicksAQuarterOfThatInLaterRounds) {
    BeConnected();
    TickUntil(LoseCloud() + 30s);
    EXPECT_LE(TicksIn(20s), 20U);
    TickUntil(now + 10min);
    EXPECT_LE(TicksIn(20s), 20U);
}

TEST_F(TheRhythm, IsATickInTwoSecondsAfterAQuarterOfAnHourWithoutTheCloud) {
    BeConnected();
    const Time poke = LoseCloud() + 10s;
    TickUntil(poke + 15min);
    EXPECT_EQ(TicksIn(20s), 10U);
    Report(OrvEvent::CLOUD_CONNECTED);
    EXPECT_EQ(rhythm.Next(now), 250ms);
}

TEST_F(TheRhythm, IsQuickWhenCellularGetsItsAddressOnlyLater) {
    Report(OrvEvent::CLOUD_CONNECTED);
    TicksIn(1min);
    TickUntil(LoseCloud() + 1h);
    Report(OrvEvent::CELLULAR_IP_GAINED);
    EXPECT_EQ(rhythm.Next(now), 40ms);
    EXPECT_LE(TicksIn(20s), 80U);
    EXPECT_LE(TicksIn(20s), 20U);
}

TEST_F(TheRhythm, IsQuickWhileTheDefaultRouteMoves) {
    BeConnected();
    TickUntil(LoseCloud() + 20s);
    rhythm.RouteMoves(now);
    EXPECT_EQ(rhythm.Next(now), 40ms);
    TickUntil(now + 1s);
    EXPECT_GT(rhythm.Next(now), 40ms);
}

TEST_F(TheRhythm, IsFourTicksASecondOnCellularForThreeMinutesAndThenOne) {
    BeConnected();
    TickUntil(LoseCloud() + 11s);
    rhythm.RouteHasMoved(true, now);
    Report(OrvEvent::CLOUD_CONNECTED);
    EXPECT_EQ(TicksIn(10s), 40U);
    TickUntil(now + 3min);
    EXPECT_EQ(TicksIn(10s), 10U);
}

TEST_F(TheRhythm, IsATickInTwoSecondsAfterAQuarterOfAnHourOnCellular) {
    BeConnected();
    TickUntil(LoseCloud() + 11s);
    rhythm.RouteHasMoved(true, now);
    Report(OrvEvent::CLOUD_CONNECTED);
    const Time moved = now;
    TickUntil(moved + 15min - 10s);
    EXPECT_EQ(TicksIn(10s), 10U);
    EXPECT_EQ(TicksIn(10s), 5U);
}

TEST_F(TheRhythm, LeavesAPokeTimeForSixTicksAlways) {
    constexpr auto attempt = 15s; // the library's limit for one
    BeConnected();
    TickUntil(LoseCloud() + 24h);
    EXPECT_GE(attempt / rhythm.Next(now), 6);
    rhythm.RouteHasMoved(true, now);
    TickUntil(now + 24h);
    EXPECT_GE(attempt / rhythm.Next(now), 6);
}

TEST_F(TheRhythm, IsQuickOnCellularWhenEthernetGetsAnAddress) {
    BeConnected();
    TickUntil(LoseCloud() + 11s);
    rhythm.RouteHasMoved(true, now);
    TickUntil(now + 1h);
    EXPECT_EQ(rhythm.Next(now), 2s);
    Report(OrvEvent::ETHERNET_IP_GAINED);
    EXPECT_EQ(rhythm.Next(now), 40ms);
    TickUntil(now + 1s);
    EXPECT_EQ(rhythm.Next(now), 250ms);
}

TEST_F(TheRhythm, KnowsThatAReturnWithoutTheCloudSettlesForFiveSecondsFirst) {
    BeConnected();
    TickUntil(LoseCloud() + 11s);
    rhythm.RouteHasMoved(true, now);
    TickUntil(now + 5s);
    rhythm.RouteHasMoved(false, now);
    // After five seconds one tick ends the settling and the next one sees the loss.
    const Time settled = now + 5s;
    TickUntil(settled + 1ms);
    EXPECT_EQ(rhythm.Next(now), 40ms);
    TickUntil(settled + 10s + 80ms);
    EXPECT_EQ(rhythm.Next(now), 40ms);
}

TEST_F(TheRhythm, IsFourTicksASecondAgainWhenTheCloudIsBack) {
    BeConnected();
    TickUntil(LoseCloud() + 1h);
    EXPECT_EQ(rhythm.Next(now), 2s);
    Report(OrvEvent::CLOUD_CONNECTED);
    EXPECT_EQ(rhythm.Next(now), 250ms);
}

TEST_F(TheRhythm, IsTheSameForeverWhenToldSo) {
    rhythm.SetFixed(100ms);
    BeConnected();
    TickUntil(LoseCloud() + 10s);
    EXPECT_EQ(TicksIn(20s), 200U);
}

} // namespace
} // namespace GatewayApp
