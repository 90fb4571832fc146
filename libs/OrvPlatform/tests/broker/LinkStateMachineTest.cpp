// SPDX-License-Identifier: Apache-2.0
#include "broker/LinkStateMachine.h"

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <vector>

namespace OrvPlatform {

using namespace std::chrono_literals;
using Link = LinkStateMachine;

class ALink : public testing::Test {
protected:
    void Connect() {
        link.Prepare();
        link.ConnectBegun(now + 3s);
        ASSERT_EQ(link.Answered(0, now), Link::Answer::CONNECTED);
    }

    Link::Loss Lose(bool likeEviction = false) { return link.Lost(now, likeEviction); }

    /// Lets time pass until the link has something to do beside its maintenance.
    Link::Due WaitUntilDue() {
        now = link.NextDue(now);
        return link.Advance(now);
    }

    /// One reconnection at the first attempt.
    void Reconnect() {
        ASSERT_EQ(WaitUntilDue(), Link::Due::RECONNECT);
        ASSERT_EQ(link.Answered(0, now), Link::Answer::RECONNECTED);
        link.BeginRestore();
    }

    /// How long the link pauses from now on.
    std::chrono::milliseconds Pause() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(link.NextDue(now) - now);
    }

    static void ExpectAbout(std::chrono::milliseconds pause, std::chrono::milliseconds full) {
        EXPECT_LE(pause, full);
        EXPECT_GE(pause, full * 3 / 4);
    }

    Link link{1};
    Link::Time now{1h};
};

struct Step {
    const char* what;
    Link::State from;
    std::function<void(Link&, Link::Time)> event;
    Link::State to;
};

void PrintTo(const Step& step, std::ostream* out) {
    *out << step.what;
}

class ALinkInAnyState : public testing::TestWithParam<Step> {
protected:
    /// Leads a fresh link there. What it pauses for ends in 5 s at the latest, its attempts do in 3 s and 10 s.
    static void BringTo(Link& link, Link::State state) {
        if (state == Link::State::CLOSED)
            return;
        link.ConnectBegun(Link::Time{1h} + 3s);
        if (state == Link::State::CONNECTING)
            return;
        link.Answered(0, Link::Time{1h});
        if (state == Link::State::UP)
            return;
        link.Lost(Link::Time{1h}, false);
        if (state == Link::State::PAUSING)
            return;
        link.Advance(link.NextDue(Link::Time{1h}));
    }
};

TEST_P(ALinkInAnyState, GoesWhereTheTableSays) {
    Link link(1);
    BringTo(link, GetParam().from);
    ASSERT_EQ(link.Current(), GetParam().from);
    GetParam().event(link, Link::Time{1h} + 1s);
    EXPECT_EQ(link.Current(), GetParam().to);
}

using State = Link::State;

void Accept(Link& link, Link::Time now) {
    link.Answered(0, now);
}

void Refuse(Link& link, Link::Time now) {
    link.Answered(5, now);
}

void Lose(Link& link, Link::Time now) {
    link.Lost(now, false);
}

void Close(Link& link, Link::Time) {
    link.Close();
}

void WaitASecond(Link& link, Link::Time now) {
    link.Advance(now);
}

void WaitAMinute(Link& link, Link::Time now) {
    link.Advance(now + 1min);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ALinkInAnyState,
    testing::Values(Step{"Close when closed", State::CLOSED, Close, State::CLOSED},
                    Step{"Lose when closed", State::CLOSED, Lose, State::CLOSED},
                    Step{"Wait when closed", State::CLOSED, WaitAMinute, State::CLOSED},
                    Step{"Accept when connecting", State::CONNECTING, Accept, State::UP},
                    Step{"Refuse when connecting", State::CONNECTING, Refuse, State::CONNECTING},
                    Step{"Lose when connecting", State::CONNECTING, Lose, State::CLOSED},
                    Step{"Wait when connecting", State::CONNECTING, WaitAMinute, State::CONNECTING},
                    Step{"Close when connecting", State::CONNECTING, Close, State::CLOSED},
                    Step{"Accept when up", State::UP, Accept, State::UP},
                    Step{"Refuse when up", State::UP, Refuse, State::UP},
                    Step{"Lose when up", State::UP, Lose, State::PAUSING},
                    Step{"Wait when up", State::UP, WaitAMinute, State::UP},
                    Step{"Close when up", State::UP, Close, State::CLOSED},
                    Step{"Accept when pausing", State::PAUSING, Accept, State::UP},
                    Step{"Refuse when pausing", State::PAUSING, Refuse, State::PAUSING},
                    Step{"Lose when pausing", State::PAUSING, Lose, State::PAUSING},
                    Step{"Wait when pausing", State::PAUSING, WaitASecond, State::RECONNECTING},
                    Step{"Close when pausing", State::PAUSING, Close, State::CLOSED},
                    Step{"Accept when reconnecting", State::RECONNECTING, Accept, State::UP},
                    Step{"Refuse when reconnecting", State::RECONNECTING, Refuse, State::RECONNECTING},
                    Step{"Lose when reconnecting", State::RECONNECTING, Lose, State::PAUSING},
                    Step{"Wait a second when reconnecting", State::RECONNECTING, WaitASecond, State::RECONNECTING},
                    Step{"Wait a minute when reconnecting", State::RECONNECTING, WaitAMinute, State::PAUSING},
                    Step{"Close when reconnecting", State::RECONNECTING, Close, State::CLOSED}));

TEST_F(ALink, TellsAConnectionFromAReconnection) {
    Connect();
    EXPECT_FALSE(link.IsRestorePending());
    EXPECT_EQ(Lose(), Link::Loss::CONNECTION_LOST);
    EXPECT_EQ(WaitUntilDue(), Link::Due::RECONNECT);
    EXPECT_EQ(link.Answered(0, now), Link::Answer::RECONNECTED);
    EXPECT_TRUE(link.IsRestorePending());
    link.BeginRestore();
    EXPECT_FALSE(link.IsRestorePending());
    EXPECT_EQ(link.Answered(0, now), Link::Answer::IGNORED);
}

TEST_F(ALink, RestoresNothingAfterAConnectOfTheApplicationThoughARestoreWasLeftOver) {
    Connect();
    Lose();
    WaitUntilDue();
    link.Answered(0, now);
    link.Close();
    Connect();
    EXPECT_FALSE(link.IsRestorePending());
}

TEST_F(ALink, IsMaintainedOnceASecond) {
    Connect();
    EXPECT_EQ(link.Advance(now), Link::Due::MAINTENANCE);
    EXPECT_EQ(link.Advance(now + 999ms), Link::Due::NOTHING);
    EXPECT_EQ(link.NextDue(now), now + 1s);
    EXPECT_EQ(link.Advance(now + 1s), Link::Due::MAINTENANCE);
}

TEST_F(ALink, PausesLongerAfterEachFailedAttempt) {
    Connect();
    Lose();
    for (const auto full : {250ms, 500ms, 1000ms, 2000ms, 4000ms, 4000ms}) {
        ExpectAbout(Pause(), full);
        ASSERT_EQ(WaitUntilDue(), Link::Due::RECONNECT);
        ASSERT_EQ(Lose(), Link::Loss::ATTEMPT_FAILED);
    }
}

TEST_F(ALink, PausesAgainWhenAnAttemptCannotEvenBegin) {
    Connect();
    Lose();
    ASSERT_EQ(WaitUntilDue(), Link::Due::RECONNECT);
    link.AttemptFailed(now);
    EXPECT_EQ(link.Current(), State::PAUSING);
    ExpectAbout(Pause(), 500ms);
}

TEST_F(ALink, BeginsWithTheShortestPauseAgainOnceItWasUp) {
    Connect();
    Lose();
    WaitUntilDue();
    Lose();
    Reconnect();
    Lose();
    ExpectAbout(Pause(), 250ms);
}

TEST_F(ALink, GivesAnAttemptTenSecondsAndALateAnswerItsDue) {
    Connect();
    Lose();
    ASSERT_EQ(WaitUntilDue(), Link::Due::RECONNECT);
    EXPECT_EQ(link.NextDue(now), now + 10s);
    EXPECT_EQ(link.Advance(now + 9999ms), Link::Due::NOTHING);
    now += 10s;
    EXPECT_EQ(link.Advance(now), Link::Due::ATTEMPT_TIMED_OUT);
    EXPECT_EQ(link.Answered(0, now + 100ms), Link::Answer::RECONNECTED);
}

TEST_F(ALink, KnowsHowLongItWasDown) {
    Connect();
    Lose();
    const auto lost = now;
    WaitUntilDue();
    Lose();
    EXPECT_EQ(link.Outage(lost + 7s), 7s);
}

TEST_F(ALink, TellsTheRefusalOfTheLatestAttemptOnly) {
    Connect();
    Lose();
    WaitUntilDue();
    EXPECT_EQ(link.Answered(5, now), Link::Answer::REFUSED);
    EXPECT_EQ(link.Refusal(), 5);
    Lose();
    WaitUntilDue();
    EXPECT_EQ(link.Refusal(), 0);
}

TEST_F(ALink, CallsARefusalNewOnceForEachReason) {
    Connect();
    Lose();
    const auto isNew = [&](int code) {
        EXPECT_EQ(WaitUntilDue(), Link::Due::RECONNECT);
        if (code != 0)
            link.Answered(code, now);
        Lose();
        return link.TakeNewRefusal();
    };
    EXPECT_FALSE(isNew(0));
    EXPECT_TRUE(isNew(5));
    EXPECT_FALSE(isNew(5));
    EXPECT_TRUE(isNew(3));
    EXPECT_FALSE(isNew(0));
    EXPECT_TRUE(isNew(3)) << "it had been something else meanwhile";
    Reconnect();
    Lose();
    EXPECT_TRUE(isNew(3)) << "it had been accepted meanwhile";
}

TEST_F(ALink, ForgetsRefusalsWhenTheApplicationConnectsAnew) {
    Connect();
    Lose();
    WaitUntilDue();
    link.Answered(5, now);
    Lose();
    EXPECT_TRUE(link.TakeNewRefusal());
    link.Close();
    link.Prepare();
    EXPECT_EQ(link.Refusal(), 0);
    link.ConnectBegun(now + 3s);
    link.Answered(0, now);
    Lose();
    WaitUntilDue();
    link.Answered(5, now);
    Lose();
    EXPECT_TRUE(link.TakeNewRefusal());
}

TEST_F(ALink, IsNotCalledEvictedByABrokerThatWasAway) {
    Connect();
    for (int restart = 0; restart < 5; ++restart) {
        now += 1s;
        Lose(true);
        EXPECT_EQ(link.ReportOfLoss(), Link::LossReport::LOSS);
        WaitUntilDue();
        Lose();
        Reconnect();
    }
}

TEST_F(ALink, IsReportedAsLostEachTimeButAsEvictedOnce) {
    Connect();
    std::vector<Link::LossReport> reports;
    for (int eviction = 0; eviction < 5; ++eviction) {
        now += 1s;
        ASSERT_EQ(Lose(true), Link::Loss::CONNECTION_LOST);
        reports.push_back(link.ReportOfLoss());
        if (reports.back() == Link::LossReport::EVICTION)
            link.EvictionReported();
        Reconnect();
    }
    using Report = Link::LossReport;
    EXPECT_EQ(reports, (std::vector<Report>{Report::LOSS, Report::LOSS, Report::EVICTION, Report::NONE, Report::NONE}));
    EXPECT_TRUE(link.IsEvictionReported());
    now += 1min;
    Lose(true);
    EXPECT_EQ(link.ReportOfLoss(), Report::LOSS) << "a connection that has lived was not the victim of another client";
    EXPECT_FALSE(link.IsEvictionReported());
}

TEST_F(ALink, ThatAnotherClientThrowsOffComesBackEverMoreSlowly) {
    Connect();
    for (const auto full : {250ms, 250ms, 250ms, 500ms, 1000ms, 2000ms, 4000ms, 4000ms}) {
        now += 1s;
        Lose(true);
        ExpectAbout(Pause(), full);
        Reconnect();
    }
}

} // namespace OrvPlatform
