// SPDX-License-Identifier: Apache-2.0
// When a delivery thread wakes up, and when it does not.
#include "LostConnection.h"
#include "ScriptedPoll.h"

#include <atomic>
#include <string>
#include <utility>

namespace OrvTest {

/// A delivery thread that has nothing to do.
class AnIdleThread : public ALostConnection {
protected:
    explicit AnIdleThread(FakeBrokerServer::Behaviour afterwards = FakeBrokerServer::StaySilent)
        : ALostConnection({std::move(afterwards)}) {}

    static unsigned WakeUps() {
        const unsigned before = polls;
        WaitUntil([] { return false; }, 300ms);
        return polls - before;
    }
};

TEST_F(AnIdleThread, SleepsWhileTheConnectionStands) {
    ASSERT_TRUE(IsConnectedFor(1));
    EXPECT_LE(WakeUps(), 5U);
}

TEST_F(AnIdleThread, SleepsWhileTheBrokerDoesNotAnswer) {
    Drop();
    ASSERT_TRUE(WaitUntil([&] { return sessions == 2; }));
    EXPECT_LE(WakeUps(), 5U);
}

TEST(AnIdleThreadOfAClientThatPublishes, IsWokenForWhatTheSocketDidNotTake) {
    std::atomic<bool> reading{false};
    FakeBrokerServer slow([&](Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        WaitUntil([&] { return reading.load(); });
        session.Serve();
    });
    BrokerSettings() = {};
    BrokerSettings().port = slow.Port();
    BrokerSettings().maxOutstandingBytes = 64U << 20U;
    TestClient client;
    const LongSleep untilWoken;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(WaitUntil([&] { return client.Connects() == 1 && longSleepers == 1; }));
    EXPECT_EQ(client.PublishMessage("topic", std::string(16U << 20U, 'x'), true), 0);
    reading = true;
    EXPECT_TRUE(WaitUntil([&] { return client.Delivered().size() == 1; }));
}

class AnIdleThreadBetweenAttempts : public AnIdleThread {
protected:
    AnIdleThreadBetweenAttempts() : AnIdleThread(FakeBrokerServer::Refuse(3)) {}
};

TEST_F(AnIdleThreadBetweenAttempts, Sleeps) {
    Drop();
    ASSERT_TRUE(WaitUntil([&] { return sessions >= 3; })); // a pause of 0.75 s at least follows
    EXPECT_LE(WakeUps(), 12U);
}

} // namespace OrvTest
