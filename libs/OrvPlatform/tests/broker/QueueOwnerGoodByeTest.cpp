// SPDX-License-Identifier: Apache-2.0
// The ends of connections to a broker that is behind: what has been published still arrives, within the bounds.
#include "BrokerFixture.h"
#include "ScriptedPoll.h"

#include <poll.h>

#include <atomic>
#include <future>
#include <memory>

namespace OrvTest {

using QUILMQTT::QueueOwner;
using Session = FakeBrokerServer::Session;

/// A client whose socket is full, of a broker that reads once it is told to. The client's delivery thread is in a
/// callback, so that what the broker says stays unread.
class AClientWithAFullSocket : public BrokerTest {
protected:
    AClientWithAFullSocket() : BrokerTest(0) {
        BrokerSettings().port = server.Port();
        BrokerSettings().maxOutstandingBytes = 100000;
        client = std::make_unique<TestClient>();
        client->onConnect = [this] { released.wait(); };
        EXPECT_TRUE(client->Connect());
        const std::string payload(16000, 'x');
        while (client->PublishMessage("topic", payload, false) == 0)
            ++published;
    }

    ~AClientWithAFullSocket() override {
        if (!isReleased)
            release.set_value();
    }

    void Release() {
        isReleased = true;
        release.set_value();
    }

    std::atomic<bool> reading{false};
    FakeBrokerServer server{[this](Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        session.Send(Encode(MqttMessage{"unread", std::string(20000, 'x'), 0, false, false, 0}));
        WaitUntil([&] { return reading.load(); });
        session.Serve();
    }};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    bool isReleased = false;
    std::size_t published = 0;
    std::unique_ptr<TestClient> client;
};

TEST_F(AClientWithAFullSocket, GetsAllOfItOutBeforeItDisconnects) {
    reading = true;
    EXPECT_TRUE(client->Disconnect());
    EXPECT_TRUE(WaitUntil([&] { return server.Count(MqttPacket::Type::DISCONNECT) == 1; }));
    EXPECT_EQ(server.Count(MqttPacket::Type::PUBLISH), published);
}

TEST_F(AClientWithAFullSocket, IsNotDisturbedByItsFormerConnectionWhenItConnectsAnew) {
    auto second = std::async(std::launch::async, [this] {
        HoldPollsOfThisThread(POLLOUT, reading);
        return client->Connect();
    });
    ASSERT_TRUE(WaitUntil([&] { return client->PublishMessage("probe", "", false) == QueueOwner::NOT_CONNECTED; }));
    server.Behave(FakeBrokerServer::Accept);
    Release();
    EXPECT_TRUE(client->Connect());
    reading = true; // now the former connection's DISCONNECT is written
    EXPECT_FALSE(second.get());
    EXPECT_EQ(client->PublishMessage("topic", "x", false), 0);
    EXPECT_EQ(Logged("lost the connection"), 0U);
}

/// A client that has a second Connect before it, which is held up: the broker takes the good-bye and does not close the
/// connection.
class ASecondConnectUnderWay : public BrokerTest {
protected:
    ASecondConnectUnderWay() : BrokerTest(0) {
        BrokerSettings().port = server.Port();
        client = std::make_unique<TestClient>();
        EXPECT_TRUE(client->Connect());
        server.Behave(FakeBrokerServer::Accept);
    }

    /// Returns while it is under way.
    void BeginSecond() {
        second = std::async(std::launch::async, [this] {
            HoldPollsOfThisThread(POLLIN, overtaken);
            return client->Connect("will", "of the second", false);
        });
        EXPECT_TRUE(WaitUntil([this] { return server.Count(MqttPacket::Type::DISCONNECT) == 1; }));
    }

    bool ResultOfSecond() {
        overtaken = true;
        return second.get();
    }

    FakeBrokerServer server{[](FakeBrokerServer::Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        session.Read();
        session.Freeze();
    }};
    std::unique_ptr<TestClient> client;
    std::atomic<bool> overtaken{false};
    std::future<bool> second;
};

TEST_F(ASecondConnectUnderWay, LeavesTheLastWordToAThird) {
    BeginSecond();
    EXPECT_TRUE(client->Connect("will", "of the third", false));
    EXPECT_FALSE(ResultOfSecond());
    EXPECT_EQ(client->PublishMessage("topic", "payload", true), 0);
    EXPECT_EQ(server.Connections(), 2);
}

TEST_F(ASecondConnectUnderWay, LeavesTheLastWordToADisconnect) {
    BeginSecond();
    EXPECT_FALSE(client->Disconnect()) << "there was no connection any more";
    EXPECT_FALSE(ResultOfSecond());
    EXPECT_EQ(client->PublishMessage("topic", "payload", true), QUILMQTT::QueueOwner::NOT_CONNECTED);
    EXPECT_EQ(server.Connections(), 1);
}

TEST_F(ASecondConnectUnderWay, IsNotHeldUpForLongerThanAnyOther) {
    EXPECT_TRUE(client->Connect("will", "of the second", false));
    EXPECT_EQ(DecodeConnect(server.Packets().back()).will->payload, "of the second");
}

/// A client whose delivery thread is held up while it writes a log record. What it has read with the refusal that the
/// record is about waits to be delivered.
class ALogThatTakesItsTime : public BrokerTest {
protected:
    ALogThatTakesItsTime() : BrokerTest(0) {
        OrvPlatformFake::Journal::Observe([this](const std::string& entry) {
            if (entry.find("the broker refuses the subscription") == std::string::npos)
                return;
            inside = true;
            released.wait();
        });
        BrokerSettings().port = server.Port();
        client = std::make_unique<TestClient>();
        EXPECT_TRUE(client->Connect() && client->Subscribe("secret", 1));
        EXPECT_TRUE(WaitUntil([this] { return inside.load(); }));
    }

    ~ALogThatTakesItsTime() override {
        client.reset();
        OrvPlatformFake::Journal::Observe({});
    }

    FakeBrokerServer server{[](Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        if (const auto request = session.Read())
            session.Send(EncodeSuback(PacketId(*request), 0x80) +
                         Encode(MqttMessage{"read with it", "", 0, false, false, 0}));
        session.Serve();
    }};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> inside{false};
    std::unique_ptr<TestClient> client;
};

TEST_F(ALogThatTakesItsTime, HoldsUpNoPublication) {
    auto publishing = std::async(std::launch::async, [this] { return client->PublishMessage("topic", "x", false); });
    const bool isDone = publishing.wait_for(PATIENCE) == std::future_status::ready;
    EXPECT_TRUE(isDone && WaitUntil([&] { return server.Count(MqttPacket::Type::PUBLISH) == 1; }));
    release.set_value();
    EXPECT_EQ(publishing.get(), 0);
    EXPECT_TRUE(WaitUntil([&] { return client->HasReceived("read with it", ""); }));
}

TEST_F(ALogThatTakesItsTime, IsFollowedByNoCallbackOnceTheClientHasDisconnected) {
    auto disconnecting = std::async(std::launch::async, [this] { return client->Disconnect(); });
    EXPECT_TRUE(WaitUntil([&] { return client->PublishMessage("probe", "", false) == QueueOwner::NOT_CONNECTED; }));
    release.set_value();
    EXPECT_TRUE(disconnecting.get());
    EXPECT_EQ(client->ReceivedCount(), 0U);
}

} // namespace OrvTest
