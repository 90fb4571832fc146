// SPDX-License-Identifier: Apache-2.0
// State that the application is asked to tell while the broker cannot take it: what becomes true by itself, what does
// not, and what is said about it.
#include "BrokerFixture.h"

#include <atomic>
#include <future>
#include <memory>
#include <thread>

namespace OrvTest {

using QUILMQTT::QueueOwner;
using Session = FakeBrokerServer::Session;

class AnOutage : public RealBrokerTest {
protected:
    AnOutage() {
        EXPECT_TRUE(client.Connect("available", "false", true));
        EXPECT_EQ(client.PublishRetainedMessage("dns", "inhibit", true), 0);
        EXPECT_EQ(client.PublishMessage("available", "true", false), 0);
        EXPECT_TRUE(IsUpToDate(client));
    }

    void Begin() {
        broker.Kill();
        ASSERT_TRUE(WaitUntil([&] { return Logged("lost the connection") == 1; }));
    }

    void End() {
        broker.Start();
        ASSERT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
        ASSERT_TRUE(IsUpToDate(client));
    }

    TestClient client;
};

TEST_F(AnOutage, EndsWithTheStateThatWasAskedForLastAlthoughItWasRefused) {
    Begin();
    EXPECT_EQ(client.PublishRetainedMessage("dns", "permit", true), QueueOwner::NOT_CONNECTED);
    EXPECT_EQ(client.PublishRetainedMessage("led", "On", false), QueueOwner::NOT_CONNECTED);
    EXPECT_EQ(client.PublishRetainedMessage("led", "Blink", false), QueueOwner::NOT_CONNECTED);
    End();
    EXPECT_EQ(Retained("dns"), "permit");
    EXPECT_EQ(Retained("led"), "Blink");
}

TEST_F(AnOutage, EndsWithoutTheTopicThatTheApplicationWantedDeleted) {
    RawClient other(broker.Port());
    Begin();
    EXPECT_EQ(client.PublishRetainedMessage("dns", "", true), QueueOwner::NOT_CONNECTED);
    broker.Start();
    // As a broker does that keeps its state over a restart, before the client is back.
    RawClient keeper(broker.Port());
    ASSERT_TRUE(keeper.Publish({"dns", "inhibit", 0, true, false, 0}));
    ASSERT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(Retained("dns"), "(nothing)");
}

TEST_F(AnOutage, IsFollowedByNoCommandThatWasRefused) {
    Begin();
    EXPECT_EQ(client.PublishMessage("command", "reset", true), QueueOwner::NOT_CONNECTED);
    EXPECT_FALSE(client.Subscribe("command", 1));
    broker.Start();
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("#"));
    ASSERT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
    client.PublishMessage("command", "end", true);
    std::vector<std::string> seen;
    while (seen.empty() || seen.back() != "command end") {
        const auto message = witness.NextMessage();
        ASSERT_TRUE(message);
        seen.push_back(message->topic + " " + message->payload);
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "command reset"), 0);
    EXPECT_EQ(Logged("; 1 subscriptions and 2 announcements made again; 1 publications were refused\""), 1U);
}

TEST_F(AnOutage, RemembersNothingThatCouldNeverBePublished) {
    Begin();
    BrokerSettings().maxOutstandingBytes = 1024;
    EXPECT_EQ(client.PublishRetainedMessage("led/#", "On", true), QueueOwner::MALFORMED_TOPIC);
    EXPECT_EQ(client.PublishRetainedMessage(std::string("l\0d", 3), "On", true), QueueOwner::MALFORMED_TOPIC);
    EXPECT_EQ(client.PublishRetainedMessage("dns", std::string(300000, 'x'), true), QueueOwner::PAYLOAD_TOO_LARGE);
    End();
    EXPECT_EQ(Retained("dns"), "inhibit");
    EXPECT_EQ(Logged("; 1 subscriptions and 2 announcements made again\""), 1U);
}

TEST_F(AnOutage, IsReportedWithTheFirstRefusalAndTheNumberOfAll) {
    Begin();
    client.PublishMessage("apps/alarm/init", "ready", false);
    client.PublishRetainedMessage("dns", "permit", true);
    client.PublishRetainedMessage("led", "On", true);
    client.PublishRetainedMessage("led", "Off", true);
    const std::string report = "client: a publication on apps/alarm/init was refused: not connected to 127.0.0.1:" +
                               std::to_string(broker.Port()) +
                               "; more of them are counted until there is a connection\"";
    EXPECT_TRUE(WaitUntil([&] { return Logged(report) == 1; })) << "while the outage lasts";
    End();
    EXPECT_EQ(Logged(" was refused"), 1U);
    EXPECT_EQ(Logged(" made again; 4 publications were refused, what was last asked is announced now on 2 topics\""),
              1U);
    broker.Kill();
    ASSERT_TRUE(WaitUntil([&] { return client.PublishMessage("second", "", false) == QueueOwner::NOT_CONNECTED; }));
    EXPECT_TRUE(WaitUntil([&] { return Logged("a publication on second was refused: not connected") == 1; }));
}

TEST(AReconnection, AnnouncesWhatWasRefusedWithItsKindAndBehindWhatIsOlder) {
    std::atomic<int> session{0};
    std::atomic<bool> back{false};
    FakeBrokerServer server([&](Session& connection) {
        if (++session == 1 || back)
            connection.Serve();
    });
    BrokerSettings() = {};
    BrokerSettings().port = server.Port();
    TestClient client;
    ASSERT_TRUE(client.Connect("available", "false", true));
    client.PublishRetainedMessage("first", "1", false);
    client.PublishRetainedMessage("second", "1", false);
    client.PublishMessage("hang up", "", false);
    ASSERT_TRUE(WaitUntil([&] { return client.PublishMessage("probe", "", false) == QueueOwner::NOT_CONNECTED; }));
    client.PublishRetainedMessage("first", "2", true);
    client.PublishMessage("available", "true", true);
    const std::size_t before = server.Count(MqttPacket::Type::PUBLISH);
    back = true;
    ASSERT_TRUE(WaitUntil([&] { return server.Count(MqttPacket::Type::PUBLISH) == before + 3; }));
    std::vector<MqttMessage> messages;
    for (const MqttPacket& packet : server.Packets()) {
        if (packet.type == MqttPacket::Type::PUBLISH)
            messages.push_back(DecodePublish(packet));
    }
    messages.erase(messages.begin(), messages.end() - 3);
    EXPECT_EQ(messages[0], (MqttMessage{"second", "1", 0, true, false, 0}));
    EXPECT_EQ(messages[1], (MqttMessage{"first", "2", 1, true, false, 0}));
    EXPECT_EQ(messages[2], (MqttMessage{"available", "true", 1, false, false, 0}));
}

TEST_F(AnOutage, EndsWithTheLastWordsOfThreadsThatGoOnPublishing) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.emplace_back([&, topic = "state/" + std::to_string(number)] {
            for (int value = 0; !stop; ++value) {
                client.PublishRetainedMessage(topic, std::to_string(value), false);
                std::this_thread::yield();
            }
            client.PublishRetainedMessage(topic, "last", false);
        });
    }
    broker.Restart();
    EXPECT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
    broker.Restart();
    EXPECT_TRUE(WaitUntil([&] { return Logged("lost the connection") == 2; }));
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(WaitUntil([&] {
        return RetainedState(broker.Port(), "state/#") ==
               std::map<std::string, std::string>{{"state/0", "last"}, {"state/1", "last"}, {"state/2", "last"}};
    }));
}

class AClientThatHasNotConnected : public RealBrokerTest {
protected:
    TestClient client;
};

TEST_F(AClientThatHasNotConnected, IsRefusedAndRemembersTheStateForTheNextReconnection) {
    EXPECT_EQ(client.PublishRetainedMessage("led", "On", true), QueueOwner::NOT_CONNECTED);
    EXPECT_EQ(client.PublishMessage("init", "ready", true), QueueOwner::NOT_CONNECTED);
    EXPECT_EQ(Logged("client: a publication on led was refused: not connected to "), 1U);
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(Logged("client: connected to 127.0.0.1:" + std::to_string(broker.Port()) +
                     "; 2 publications had been refused before\""),
              1U);
    EXPECT_EQ(Retained("led"), "(nothing)") << "a Connect by the application announces nothing";
    broker.Restart();
    EXPECT_TRUE(WaitUntil([&] { return Retained("led") == "On"; }));
}

TEST_F(AClientThatHasNotConnected, KeepsTheStateThatWasRefusedAfterADisconnect) {
    ASSERT_TRUE(client.Connect());
    ASSERT_EQ(client.PublishRetainedMessage("dns", "inhibit", true), 0);
    ASSERT_TRUE(client.Disconnect());
    EXPECT_EQ(client.PublishRetainedMessage("dns", "permit", true), QueueOwner::NOT_CONNECTED);
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(IsUpToDate(client));
    broker.Restart();
    EXPECT_TRUE(WaitUntil([&] { return Retained("dns") == "permit"; }));
}

TEST_F(AClientThatHasNotConnected, IsToldWhatIsWrongWithAPublication) {
    BrokerSettings().maxOutstandingBytes = 1024;
    TestClient small("small");
    ASSERT_TRUE(small.Connect());
    small.PublishMessage("a/+", "", false);
    small.PublishMessage("b/+", "", false);
    small.PublishMessage("large", std::string(1000, 'x'), false);
    EXPECT_TRUE(WaitUntil([&] {
        return Logged("small: a publication was refused: the topic \"a/+\" holds a wildcard (+ or #)\"") == 1;
    }));
    EXPECT_TRUE(WaitUntil([&] {
        return Logged("small: a publication of 1000 bytes on large was refused: it can never fit in; [broker] "
                      "max_outstanding_bytes is 1024\"") == 1;
    }));
    EXPECT_EQ(Logged("b/+"), 0U) << "once for each reason";
}

TEST_F(AClientThatHasNotConnected, AnnouncesAsMuchAsItMayRememberAndSaysSo) {
    BrokerSettings().maxOutstandingBytes = 1024;
    TestClient small("small");
    ASSERT_TRUE(small.Connect());
    for (int number = 0; number < 100; ++number) {
        const std::string topic = "state/" + std::to_string(number);
        EXPECT_TRUE(WaitUntil([&] { return small.PublishRetainedMessage(topic, "x", false) == 0; }));
    }
    EXPECT_TRUE(WaitUntil([&] {
        return Logged("small: there is more retained state than [broker] max_outstanding_bytes (1024): nothing will be "
                      "announced again after a reconnection on state/7 and on further topics") == 1;
    }));
    ASSERT_TRUE(IsUpToDate(small));
    EXPECT_EQ(RetainedState(broker.Port(), "state/#").size(), 100U);
    broker.Restart();
    ASSERT_TRUE(WaitUntil([&] { return small.Connects() == 2; }));
    ASSERT_TRUE(IsUpToDate(small));
    EXPECT_EQ(RetainedState(broker.Port(), "state/#").size(), 7U);
}

/// A broker that acknowledges as many publications as it is told to.
class ABrokerThatFallsBehind : public BrokerTest {
protected:
    static constexpr std::size_t LIMIT = 20000;

    ABrokerThatFallsBehind() : BrokerTest(0) {
        BrokerSettings().port = server.Port();
        BrokerSettings().maxOutstandingBytes = LIMIT;
        client = std::make_unique<TestClient>();
        EXPECT_TRUE(client->Connect("available", "false", true));
        const std::string quarter(LIMIT / 4 - 128 - 5, 'x');
        for (int number = 1; number <= 4; ++number)
            EXPECT_EQ(client->PublishMessage("topic", quarter, true), 0);
    }

    ~ABrokerThatFallsBehind() override { acknowledged = 1000; }

    /// The publications from `first` on, in the order of arrival.
    std::vector<std::string> Publications(std::size_t first) const {
        std::vector<std::string> texts;
        for (const MqttPacket& packet : server.Packets()) {
            if (packet.type == MqttPacket::Type::PUBLISH) {
                const auto message = DecodePublish(packet);
                texts.push_back(message.topic + " " + message.payload);
            }
        }
        texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(std::min(first, texts.size())));
        return texts;
    }

    bool HaveArrived(std::size_t count) {
        return WaitUntil([&] { return server.Count(MqttPacket::Type::PUBLISH) == count; });
    }

    std::atomic<int> acknowledged{0};
    FakeBrokerServer server{[this](Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        for (int number = 1; const auto packet = session.Read();) {
            if (packet->type != MqttPacket::Type::PUBLISH)
                continue;
            const auto message = DecodePublish(*packet);
            if (message.qos == 0)
                continue;
            WaitUntil([&] { return acknowledged >= number; }, 60s);
            session.Send(EncodePuback(message.id));
            ++number;
        }
    }};
    std::unique_ptr<TestClient> client;
};

TEST_F(ABrokerThatFallsBehind, IsToldTheStateThatWasRefusedOnceItKeepsUpAgain) {
    const std::string large(3000, 'x');
    EXPECT_EQ(client->PublishRetainedMessage("dns", large + "inhibit", true), QueueOwner::OUTSTANDING_FULL);
    EXPECT_EQ(client->PublishRetainedMessage("led", large, false), QueueOwner::OUTSTANDING_FULL);
    EXPECT_EQ(client->PublishMessage("available", large + "true", false), QueueOwner::OUTSTANDING_FULL);
    EXPECT_EQ(client->PublishMessage("command", large, false), QueueOwner::OUTSTANDING_FULL);
    EXPECT_EQ(client->PublishRetainedMessage("dns", large + "permit", true), QueueOwner::OUTSTANDING_FULL);
    EXPECT_TRUE(
        WaitUntil([&] { return Logged("publications are refused until it takes some, the first one on dns; ") == 1; }));
    acknowledged = 1000;
    ASSERT_TRUE(HaveArrived(7));
    EXPECT_EQ(Publications(4),
              (std::vector<std::string>{"led " + large, "available " + large + "true", "dns " + large + "permit"}));
    EXPECT_TRUE(WaitUntil([&] {
        return Logged(
                   "the broker keeps up again; 5 publications were refused, what was last asked is announced now on 3 "
                   "topics\"") == 1;
    }));
}

TEST_F(ABrokerThatFallsBehind, IsToldWhatDoesNotFitYetAsSoonAsThereIsRoom) {
    const std::string half(LIMIT / 2, 'x');
    EXPECT_EQ(client->PublishRetainedMessage("a", half, true), QueueOwner::OUTSTANDING_FULL);
    EXPECT_EQ(client->PublishRetainedMessage("b", half.substr(0, LIMIT / 2 - 1000), true),
              QueueOwner::OUTSTANDING_FULL);
    acknowledged = 4;
    ASSERT_TRUE(HaveArrived(5)) << "the first is under way, the second would be too much";
    acknowledged = 1000;
    EXPECT_TRUE(HaveArrived(6));
    EXPECT_EQ(Publications(5).at(0).substr(0, 2), "b ");
}

TEST_F(ABrokerThatFallsBehind, IsNotToldWhatALaterPublicationHasReplaced) {
    const std::string large(3000, 'x');
    EXPECT_EQ(client->PublishRetainedMessage("dns", large, true), QueueOwner::OUTSTANDING_FULL);
    acknowledged = 1;
    ASSERT_TRUE(WaitUntil([&] { return client->Delivered().size() == 1; }));
    EXPECT_EQ(client->PublishRetainedMessage("dns", "permit", true), 0) << "there is room, if not much";
    acknowledged = 1000;
    ASSERT_TRUE(WaitUntil([&] { return client->Delivered().size() == 5; }));
    EXPECT_TRUE(WaitUntil([&] { return Logged("the broker keeps up again; 1 publications were refused\"") == 1; }));
    EXPECT_EQ(client->PublishMessage("end", "", true), 0);
    ASSERT_TRUE(HaveArrived(6));
    EXPECT_EQ(Publications(4), (std::vector<std::string>{"dns permit", "end "}));
}

} // namespace OrvTest
