// SPDX-License-Identifier: Apache-2.0
// Brokers that answer late, wrongly, twice or not at all once a connection has been made: what the client makes of it,
// and what it says about it.
#include "LostConnection.h"
#include "NoMoreDescriptors.h"
#include "ScriptedPoll.h"

#include <pthread.h>

#include <atomic>
#include <future>
#include <limits>

namespace OrvTest {

TEST_F(ALostConnection, IsTwoLinesInTheLogHoweverItEnds) {
    ASSERT_TRUE(client.Subscribe("a", 1));
    EXPECT_EQ(client.PublishRetainedMessage("led", "On", false), 0);
    Drop();
    ASSERT_TRUE(IsConnectedFor(2));
    EXPECT_EQ(LoggedAt("info", "connected to " + place + "\""), 1U);
    EXPECT_EQ(
        LoggedAt("warning", "lost the connection to " + place + ": the broker closed the connection; reconnecting\""),
        1U);
    EXPECT_EQ(LoggedAt("info", "connected again to " + place + " after "), 1U);
    EXPECT_EQ(Logged(" s; 1 subscriptions and 1 announcements made again\""), 1U);
    EXPECT_EQ(Log().size(), 3U);
}

TEST_F(ALostConnection, IsRestoredBeforeTheApplicationIsToldOfTheNext) {
    ASSERT_TRUE(client.Subscribe("a", 1));
    ASSERT_EQ(client.PublishRetainedMessage("led", "On", false), 0);
    heldConnect = 2;
    Drop();
    EXPECT_TRUE(WaitUntil([&] { return server.Count(MqttPacket::Type::PUBLISH) == 3; })) << "led, hang up, led again";
    EXPECT_EQ(server.Count(MqttPacket::Type::SUBSCRIBE), 2U);
    release.set_value();
}

class ARefusalAfterALoss : public ALostConnection {
protected:
    ARefusalAfterALoss()
        : ALostConnection({FakeBrokerServer::Refuse(5), FakeBrokerServer::Refuse(5), AcceptAndClose,
                           FakeBrokerServer::Refuse(5), FakeBrokerServer::CloseAtOnce, FakeBrokerServer::Accept}) {}
};

TEST_F(ARefusalAfterALoss, IsReportedOnceInEachOutageAndNoOtherFailureIs) {
    // Pauses of 0.25, 0.5 and 1 s, a quarter less at most.
    EXPECT_GE(DropAndAwait(4), 1300ms);
    ASSERT_TRUE(IsConnectedFor(3));
    const std::string attempt = "cannot reconnect to " + place + ": ";
    EXPECT_EQ(LoggedAt("warning", attempt + "refused by the broker: not authorised; set [broker] username"), 2U);
    EXPECT_EQ(LoggedAt("debug", attempt + "refused by the broker"), 1U);
    EXPECT_EQ(LoggedAt("debug", attempt + "the broker closed the connection"), 1U);
}

class AProtocolFault : public ALostConnection {
protected:
    AProtocolFault()
        : ALostConnection({AcceptAndSpeakGarbage, AcceptAndSpeakGarbage, AcceptAndSpeakGarbage, AcceptAndSpeakGarbage,
                           AcceptAndSpeakGarbage, AcceptAndSpeakGarbage, AcceptAndSpeakGarbage, AcceptAndSpeakGarbage,
                           FakeBrokerServer::Accept}) {}
};

TEST_F(AProtocolFault, OverAndOverIsNoOtherClientAndDoesNotLengthenThePauses) {
    DropAndAwait(6);
    auto shortest = TimeOf([&] { EXPECT_TRUE(WaitUntil([&] { return sessions >= 7; })); });
    for (const std::size_t session : {8U, 9U, 10U})
        shortest = std::min(shortest, TimeOf([&] { EXPECT_TRUE(WaitUntil([&] { return sessions >= session; })); }));
    // A pause is 0.25 s at most. One that had grown would be 1.5 s by now.
    EXPECT_LT(shortest, 1400ms);
    EXPECT_TRUE(WaitUntil([&] { return LoggedAt("warning", "lost the connection") == 9; }));
    EXPECT_EQ(Logged("the peer does not speak MQTT, is it a broker?"), 8U);
    EXPECT_EQ(Logged("another client uses the same id"), 0U);
}

class AFaultRightAfterTheAnswer : public ALostConnection {
protected:
    AFaultRightAfterTheAnswer() : ALostConnection({AcceptAndSpeakGarbage, FakeBrokerServer::Accept}) {}
};

TEST_F(AFaultRightAfterTheAnswer, LeavesNothingToBeAnnouncedTwice) {
    ASSERT_EQ(client.PublishRetainedMessage("led", "On", true), 0);
    ASSERT_TRUE(WaitUntil([&] { return client.Delivered().size() == 1; }));
    Drop();
    ASSERT_TRUE(IsConnectedFor(2));
    ASSERT_EQ(client.PublishMessage("end", "", true), 0);
    ASSERT_TRUE(WaitUntil([&] { return client.Delivered().size() == 3; }));
    // led and the request to hang up; led again and the end.
    EXPECT_EQ(server.Count(MqttPacket::Type::PUBLISH), 4U);
}

class AnotherClientWithTheSameId : public ALostConnection {
protected:
    AnotherClientWithTheSameId()
        : ALostConnection({AcceptAndClose, AcceptAndClose, AcceptAndClose, AcceptAndSpeakGarbage, AcceptAndClose,
                           AcceptAndClose, AcceptAndClose, FakeBrokerServer::Accept}) {}
};

TEST_F(AnotherClientWithTheSameId, IsReportedOnceEachTimeItComesAndThePausesGrow) {
    // Three pauses of 0.25 s, one of 0.5 and one of 1 s, a quarter less at most.
    EXPECT_GE(DropAndAwait(6), 1650ms);
    ASSERT_TRUE(WaitUntil([&] { return sessions == 9; }));
    EXPECT_TRUE(WaitUntil([&] { return Logged("connected again") == 7; }));
    EXPECT_EQ(LoggedAt("error", "the broker keeps throwing this client off: another client uses the same id; "), 2U);
    EXPECT_EQ(LoggedAt("warning", "lost the connection to"), 5U) << "those that are not part of a reported pattern";
    EXPECT_EQ(LoggedAt("info", "connected again to"), 5U);
}

class ABrokerThatAnswersTwice : public ALostConnection {
protected:
    ABrokerThatAnswersTwice()
        : ALostConnection({[this](Session& session) {
              session.Read();
              session.Send(EncodeConnack(0));
              WaitUntil([this] { return isConnected.load(); });
              session.Send(EncodeConnack(0));
              session.Serve();
          }}) {}

    std::atomic<bool> isConnected{false};
};

TEST_F(ABrokerThatAnswersTwice, HasConnectedOnce) {
    Drop();
    ASSERT_TRUE(IsConnectedFor(2));
    isConnected = true;
    // The first is acknowledged after the second answer, perhaps in the same breath; the second in a later one.
    for (std::size_t publications = 1; publications <= 2; ++publications) {
        ASSERT_EQ(client.PublishMessage("end", "", true), 0);
        ASSERT_TRUE(WaitUntil([&] { return client.Delivered().size() == publications; }));
    }
    EXPECT_EQ(client.Connects(), 2);
}

class ALateAnswer : public ALostConnection {
protected:
    ALateAnswer()
        : ALostConnection({[this](Session& session) {
              session.Read();
              // A later attempt has a longer pause, and so another chance, should this thread be held up.
              const int own = static_cast<int>(sessions) - 1;
              WaitUntil([&] { return givenUp >= own; }, 60s);
              session.Send(EncodeConnack(0));
              session.Serve();
          }}) {}

    std::atomic<int> givenUp{0};
};

TEST_F(ALateAnswer, StillCountsAfterTheTenSecondsThatAnAttemptIsGiven) {
    Drop();
    const auto waitForIt = [&] {
        return WaitUntil(
            [&] {
                givenUp =
                    static_cast<int>(LoggedAt("debug", "cannot reconnect to " + place + ": no answer within 10 s"));
                return client.Connects() == 2;
            },
            40s);
    };
    bool connected = false;
    EXPECT_GE(TimeOf([&] { connected = waitForIt(); }), 10s);
    ASSERT_TRUE(connected);
    EXPECT_EQ(server.Connections(), 1 + givenUp) << "it was taken on the connection that was given up";
}

class ALateEnd : public ALostConnection {
protected:
    ALateEnd()
        : ALostConnection({[this](Session& session) {
                               session.Read();
                               WaitUntil([this] { return givenUp.load(); }, 60s);
                           },
                           FakeBrokerServer::Accept}) {}

    std::atomic<bool> givenUp{false};
};

TEST_F(ALateEnd, OfAnAttemptThatWasGivenUpIsNotTakenForAFurtherAttempt) {
    const std::string attempt = "cannot reconnect to " + place + ": ";
    Drop();
    ASSERT_TRUE(WaitUntil([&] { return sessions == 2; }));
    {
        const LongSleep pause;
        ASSERT_TRUE(WaitUntil([&] { return longSleepers == 1; }, 40s));
        EXPECT_EQ(LoggedAt("debug", attempt + "no answer within 10 s"), 1U);
    }
    givenUp = true;
    ASSERT_TRUE(IsConnectedFor(2));
    EXPECT_EQ(LoggedAt("debug", attempt), 1U);
}

TEST(AClientOfABrokerThatTalksOnAndOn, DisconnectsWithinASecond) {
    FakeBrokerServer server([](Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        session.Read();
        const std::string message = Encode(MqttMessage{"talk", std::string(1000, 'x'), 0, false, false, 0});
        while (session.Send(message))
            ;
    });
    BrokerSettings() = {};
    BrokerSettings().port = server.Port();
    TestClient client;
    ASSERT_TRUE(client.Connect());
    inputNeverPauses = true;
    auto disconnecting = std::async(std::launch::async, [&] { return client.Disconnect(); });
    EXPECT_EQ(disconnecting.wait_for(1s + SLACK), std::future_status::ready);
    inputNeverPauses = false;
    EXPECT_TRUE(disconnecting.get());
}

TEST_F(ALostConnection, IsMadeAgainOnceThereAreDescriptorsAgain) {
    {
        const NoMoreDescriptors now;
        Drop();
        EXPECT_TRUE(WaitUntil(
            [&] { return LoggedAt("debug", "cannot reconnect to " + place + ": Too many open files") >= 2; }));
    }
    EXPECT_TRUE(IsConnectedFor(2));
}

/// While it lives, this process gets no further thread: each would need a stack of half the address space.
class NoMoreThreads {
public:
    NoMoreThreads() {
        pthread_getattr_default_np(&before);
        pthread_attr_t greedy;
        pthread_getattr_default_np(&greedy);
        pthread_attr_setstacksize(&greedy, std::numeric_limits<std::size_t>::max() / 2 & ~std::size_t{0xffff});
        pthread_setattr_default_np(&greedy);
        pthread_attr_destroy(&greedy);
    }
    ~NoMoreThreads() {
        pthread_setattr_default_np(&before);
        pthread_attr_destroy(&before);
    }
    NoMoreThreads(const NoMoreThreads&) = delete;
    NoMoreThreads& operator=(const NoMoreThreads&) = delete;

private:
    pthread_attr_t before{};
};

class AProcessThatGetsNoThread : public RealBrokerTest {};

TEST_F(AProcessThatGetsNoThread, IsToldSoAndConnectsOnceItGetsOne) {
    TestClient client;
    {
        const NoMoreThreads now;
        EXPECT_FALSE(client.Connect());
    }
    EXPECT_EQ(Logged(": no thread to be had: "), 1U);
    EXPECT_TRUE(client.Connect());
    EXPECT_TRUE(WaitUntil([&] { return client.Connects() == 1; }));
}

} // namespace OrvTest
