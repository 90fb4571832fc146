// SPDX-License-Identifier: Apache-2.0
#include "KitScene.h"

#include <stdexcept>

namespace OrvStackSdk::Testing {
namespace {

class VirtualTimeOfAGateway : public ::testing::Test {
protected:
    void Note(const char* what) { happened.push_back(std::to_string(gateway.Elapsed().count()) + " " + what); }

    Gateway gateway;
    Lines happened;
};

TEST_F(VirtualTimeOfAGateway, RunsStepsAtTheirTimesAndInOrder) {
    gateway.Every(200ms, [&] { Note("step"); });
    gateway.After(200ms, [&] { Note("once"); });
    gateway.After(50ms, [&] { Note("early"); });
    gateway.Advance(399ms);
    EXPECT_EQ(happened, (Lines{"0 step", "50 early", "200 once", "200 step"}));
    EXPECT_EQ(gateway.Elapsed(), 399ms);
    gateway.Advance(1ms);
    EXPECT_EQ(happened.back(), "400 step");
}

TEST_F(VirtualTimeOfAGateway, WaitsBetweenStepsAsTheLoopAsksEachTime) {
    auto wait = 100ms;
    gateway.Loop([&] {
        Note("step");
        return wait *= 2;
    });
    gateway.Advance(1s);
    EXPECT_EQ(happened, (Lines{"0 step", "200 step", "600 step"}));
}

TEST_F(VirtualTimeOfAGateway, RefusesAStepThatWouldRunForEver) {
    EXPECT_THROW(gateway.Every(0ms, [] {}), std::invalid_argument);
    gateway.Loop([] { return 0ms; });
    EXPECT_THROW(gateway.Advance(1s), std::invalid_argument);
    EXPECT_THROW(gateway.Advance(-1ms), std::invalid_argument);
}

TEST_F(VirtualTimeOfAGateway, RunsNoTimerThatWasCancelledInItsOwnStepOrBefore) {
    const auto before = gateway.After(100ms, [&] { Note("never"); });
    Gateway::Timer own = 0;
    own = gateway.Every(100ms, [&] {
        Note("step");
        gateway.Cancel(own);
    });
    gateway.Cancel(before);
    gateway.Advance(1s);
    EXPECT_EQ(happened, (Lines{"0 step"}));
}

TEST_F(VirtualTimeOfAGateway, StopsWhereAConditionHolds) {
    int steps = 0;
    gateway.Every(100ms, [&] { ++steps; });
    EXPECT_TRUE(gateway.AdvanceUntil([&] { return steps == 4; }, 10s));
    EXPECT_EQ(gateway.Elapsed(), 300ms);
    EXPECT_FALSE(gateway.AdvanceUntil([] { return false; }, 10s));
    EXPECT_EQ(gateway.Elapsed(), 10300ms);
}

TEST_F(VirtualTimeOfAGateway, StandsWhereAStepThrows) {
    gateway.After(300ms, [] { throw std::runtime_error("a failed check"); });
    EXPECT_THROW(gateway.Advance(1s), std::runtime_error);
    EXPECT_EQ(gateway.Elapsed(), 300ms);
    gateway.Advance(700ms);
    EXPECT_EQ(gateway.Elapsed(), 1s);
}

TEST_F(VirtualTimeOfAGateway, MovesTheWallClockWhichCanBePutRight) {
    EXPECT_EQ(gateway.WallClock(), std::chrono::system_clock::from_time_t(1767225600));
    gateway.Advance(90s);
    EXPECT_EQ(gateway.WallClock(), std::chrono::system_clock::from_time_t(1767225690));
    gateway.SetWallClock(std::chrono::system_clock::from_time_t(1000));
    gateway.Advance(1s);
    EXPECT_EQ(gateway.WallClock(), std::chrono::system_clock::from_time_t(1001));
    EXPECT_EQ(gateway.Elapsed(), 91s);
}

TEST_F(VirtualTimeOfAGateway, HasNoSecondGatewayBesideIt) {
    EXPECT_THROW(Gateway(), std::logic_error);
}

TEST_F(AnApplicationOnTheKit, FailsOverAndReturnsInVirtualTime) {
    BeginWithBothPaths();
    const auto lost = gateway.Elapsed();
    gateway.poke.Fails("eth0", 7);
    Report({OrvEvent::CLOUD_DISCONNECTED, OrvEvent::ETHERNET_IP_LOST});
    ASSERT_TRUE(gateway.AdvanceUntil([&] { return gateway.connman.Top() == "wwan0"; }, 60s));
    EXPECT_GE(gateway.Elapsed() - lost, 10s);
    EXPECT_LE(gateway.Elapsed() - lost, 11s);
    gateway.Advance(1s);
    Report({OrvEvent::CLOUD_CONNECTED});
    gateway.Advance(60s);
    gateway.poke.Reaches("eth0");
    Report({OrvEvent::ETHERNET_IP_GAINED});
    gateway.Advance(10s);
    EXPECT_EQ("", Difference("connman top eth0\n" // with the first two events
                             "connman top eth0\n"
                             "poke wwan0 reached the cloud\n"
                             "connman top wwan0\n"
                             "application reconnects\n"
                             "connman top wwan0\n"
                             "connman top wwan0\n"
                             "poke eth0 reached the cloud\n"
                             "connman dns wwan0 \"0.0.0.0\" \"\"\n"
                             "connman top eth0\n"
                             "application reconnects\n"
                             "connman dns wwan0 \"\" \"\"\n",
                             gateway.journal.Text({"connman", "poke", "application"})));
    EXPECT_EQ(gateway.broker.Retained("/orv/network/wan/inhibit_dns"), "permit");
}

TEST(ASecondGateway, BeginsAsFreshAsTheFirst) {
    std::string first;
    for (int round = 0; round < 2; ++round) {
        GatewayOptions options;
        options.logRecords = LogRecords::FROM_TRACE;
        Gateway gateway(options);
        const auto client = CreateClient();
        client->Init("alarm");
        client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
        gateway.Every(100ms, [&] { client->Tick(100ms); });
        gateway.Advance(1s);
        gateway.connman.Disappear("eth0");
        gateway.poke.Hangs("wwan0");
        gateway.broker.SetLatency(1s);
        if (round == 0)
            first = gateway.journal.TimedText();
        else
            EXPECT_EQ("", Difference(first, gateway.journal.TimedText()));
    }
    EXPECT_NE(first.find(" Cloud connected with Ethernet interface"), std::string::npos);
}

} // namespace
} // namespace OrvStackSdk::Testing
