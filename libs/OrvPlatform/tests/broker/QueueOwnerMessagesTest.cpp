// SPDX-License-Identifier: Apache-2.0
// Messages: what arrives as it was sent, what is refused, what is never sent later.
#include "BrokerFixture.h"

#include <atomic>
#include <future>
#include <memory>

namespace OrvTest {

using QUILMQTT::QueueOwner;

class AConnectedClient : public RealBrokerTest {
protected:
    AConnectedClient() { EXPECT_TRUE(client.Connect()); }

    TestClient client;
};

TEST_F(AConnectedClient, ReceivesWhatIsPublishedOnItsSubscriptionsInOrder) {
    ASSERT_TRUE(client.Subscribe("a/#", 1));
    RawClient other(broker.Port());
    Messages expected;
    // A broker keeps the order of messages of one kind only.
    for (int number = 0; number < 200; ++number) {
        expected.emplace_back("a/" + std::to_string(number % 3), std::to_string(number));
        ASSERT_TRUE(other.Publish({expected.back().first, expected.back().second, number / 100, false, false, 0}));
    }
    ASSERT_TRUE(WaitUntil([&] { return client.ReceivedCount() >= expected.size(); }));
    EXPECT_EQ(client.Received(), expected);
}

TEST_F(AConnectedClient, CarriesAnyBytesInAPayload) {
    const std::string all = [] {
        std::string bytes;
        for (int value = 0; value < 256; ++value)
            bytes += static_cast<char>(value);
        return bytes;
    }();
    ASSERT_TRUE(client.Subscribe("bytes", 1));
    EXPECT_EQ(client.PublishMessage("bytes", all, true), 0);
    EXPECT_EQ(client.PublishMessage("bytes", "", true), 0);
    EXPECT_EQ(client.PublishMessage("bytes", std::string(200000, '\0'), true), 0);
    ASSERT_TRUE(WaitUntil([&] { return client.ReceivedCount() == 3; }));
    EXPECT_EQ(client.Received(), (Messages{{"bytes", all}, {"bytes", ""}, {"bytes", std::string(200000, '\0')}}));
}

TEST_F(AConnectedClient, PublishesWithTheKindThatWasAskedFor) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("kind/#", 1));
    client.PublishMessage("kind/plain", "1", false);
    client.PublishRetainedMessage("kind/retained", "2", false);
    client.PublishRetainedMessage("kind/both", "3", true);
    EXPECT_EQ(witness.NextMessage(), (MqttMessage{"kind/plain", "1", 0, false, false, 0}));
    EXPECT_EQ(witness.NextMessage(), (MqttMessage{"kind/retained", "2", 0, false, false, 0}));
    EXPECT_EQ(witness.NextMessage(), (MqttMessage{"kind/both", "3", 1, false, false, 0}));
    EXPECT_EQ(RetainedState(broker.Port(), "kind/#"),
              (std::map<std::string, std::string>{{"kind/both", "3"}, {"kind/retained", "2"}}));
}

TEST_F(AConnectedClient, IsToldOfTheDeliveryOfAssuredPublicationsOnly) {
    client.PublishMessage("plain", "x", false);
    client.PublishMessage("assured", "x", true);
    ASSERT_TRUE(WaitUntil([&] { return !client.Delivered().empty(); }));
    EXPECT_EQ(client.Delivered(), std::vector<std::string>{"assured"});
}

TEST_F(AConnectedClient, KeepsItsConnectionOverHostileTopics) {
    const std::string nul("a\0b", 3);
    const std::string notUtf8("a/\xff\xfe");
    for (const std::string& topic : {std::string(), std::string("+"), std::string("#"), std::string("a/#/b"), nul,
                                     notUtf8, std::string(65536, 'x')}) {
        EXPECT_EQ(client.PublishMessage(topic, "x", true), QueueOwner::MALFORMED_TOPIC) << topic.substr(0, 20);
        EXPECT_EQ(client.PublishRetainedMessage(topic, "x", false), QueueOwner::MALFORMED_TOPIC);
    }
    for (const std::string& filter :
         {std::string(), std::string("a#"), std::string("a/#/b"), nul, notUtf8, std::string(65536, 'x')})
        EXPECT_FALSE(client.Subscribe(filter, 1)) << filter.substr(0, 20);
    EXPECT_FALSE(client.Subscribe("a", 3));
    EXPECT_FALSE(client.Subscribe("a", -1));
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(client.Connects(), 1);
}

TEST_F(AConnectedClient, GetsFiftyAssuredPublicationsOutBeforeItDisconnects) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("last/#", 1));
    // Input that nobody reads any more must not cut the output short.
    ASSERT_TRUE(client.Subscribe("last/#", 1));
    for (int number = 0; number < 50; ++number)
        ASSERT_EQ(client.PublishMessage("last/word", std::to_string(number), true), 0);
    ASSERT_TRUE(client.Disconnect());
    const auto payloads = NextPayloads(witness, 50);
    ASSERT_EQ(payloads.size(), 50U);
    for (std::size_t number = 0; number < 50; ++number)
        EXPECT_EQ(payloads[number], std::to_string(number));
}

TEST_F(AConnectedClient, IsRefusedAfterwardsAndNothingIsSentLater) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("late/#", 1));
    ASSERT_TRUE(client.Disconnect());
    EXPECT_EQ(client.PublishMessage("late/word", "x", true), QueueOwner::NOT_CONNECTED);
    EXPECT_EQ(client.PublishRetainedMessage("late/word", "x", true), QueueOwner::NOT_CONNECTED);
    EXPECT_FALSE(client.Subscribe("late/word", 1));
    ASSERT_TRUE(client.Connect());
    client.PublishMessage("late/fence", "", true);
    EXPECT_EQ(witness.NextMessage()->topic, "late/fence");
}

TEST_F(AConnectedClient, MakesARetainedTopicDisappearWithAnEmptyPayload) {
    client.PublishRetainedMessage("led", "On", true);
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(Retained("led"), "On");
    client.PublishRetainedMessage("led", "", true);
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(Retained("led"), "(nothing)");
}

class ASubscription : public BrokerTest {
protected:
    /// To a broker that grants what is not called "secret", and hangs up at a publication.
    ASubscription()
        : BrokerTest(0), server([](FakeBrokerServer::Session& session) {
              while (const auto packet = session.Read()) {
                  if (packet->type == MqttPacket::Type::CONNECT)
                      session.Send(EncodeConnack(0));
                  else if (packet->type == MqttPacket::Type::SUBSCRIBE)
                      session.Send(EncodeSuback(PacketId(*packet), SubscribedFilter(*packet) == "secret" ? 0x80 : 0));
                  else
                      return;
              }
          }) {
        BrokerSettings().port = server.Port();
    }

    /// "filter qos", as the broker has been asked.
    std::vector<std::string> Asked() const {
        std::vector<std::string> asked;
        for (const MqttPacket& packet : server.Packets()) {
            if (packet.type == MqttPacket::Type::SUBSCRIBE)
                asked.push_back(SubscribedFilter(packet) + " " + std::to_string(packet.body.back()));
        }
        return asked;
    }

    static bool IsConnectedFor(TestClient& client, int connects) {
        return WaitUntil([&] { return client.Connects() == connects; });
    }

    static bool Reconnects(TestClient& client, int connects = 2) {
        return client.PublishMessage("hang up", "", false) == 0 && IsConnectedFor(client, connects);
    }

    FakeBrokerServer server;
};

TEST_F(ASubscription, IsMadeAgainInOrderOnceAndWithItsLatestQualityOfService) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    for (int qos = 0; qos <= 2; ++qos)
        EXPECT_TRUE(client.Subscribe("b" + std::to_string(qos), qos));
    EXPECT_TRUE(client.Subscribe("a", 0));
    EXPECT_TRUE(client.Subscribe("b1", 2));
    const std::vector<std::string> first{"b0 0", "b1 1", "b2 2", "a 0", "b1 2"};
    EXPECT_TRUE(WaitUntil([&] { return Asked().size() == first.size(); }));
    EXPECT_EQ(Asked(), first);
    ASSERT_TRUE(Reconnects(client));
    EXPECT_TRUE(WaitUntil([&] { return Asked().size() == first.size() + 4; }));
    EXPECT_EQ(Asked(),
              (std::vector<std::string>{"b0 0", "b1 1", "b2 2", "a 0", "b1 2", "b0 0", "b1 2", "b2 2", "a 0"}));
}

TEST_F(ASubscription, IsMadeAgainAfterTheSecondLossInARowToo) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(client.Subscribe("a", 1));
    ASSERT_TRUE(Reconnects(client, 2));
    ASSERT_TRUE(Reconnects(client, 3));
    EXPECT_TRUE(WaitUntil([&] { return Asked().size() == 3; }));
    EXPECT_EQ(Asked(), (std::vector<std::string>{"a 1", "a 1", "a 1"}));
}

TEST_F(ASubscription, OfAFormerConnectionIsNotMadeAgainAfterALaterLoss) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(IsConnectedFor(client, 1));
    EXPECT_TRUE(client.Subscribe("old", 1));
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(IsConnectedFor(client, 2));
    EXPECT_TRUE(client.Subscribe("new", 1));
    ASSERT_TRUE(Reconnects(client, 3));
    ASSERT_TRUE(Reconnects(client, 4));
    const std::vector<std::string> expected{"old 1", "new 1", "new 1", "new 1"};
    EXPECT_TRUE(WaitUntil([&] { return Asked().size() == expected.size(); }));
    EXPECT_EQ(Asked(), expected);
}

TEST_F(ASubscription, ThatTheBrokerRefusesIsReportedEachTimeItIsMade) {
    const std::string report = "client: the broker refuses the subscription to secret; look into its access list";
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(client.Subscribe("open", 1));
    EXPECT_TRUE(client.Subscribe("secret", 1));
    EXPECT_TRUE(WaitUntil([&] { return Logged(report) == 1; }));
    ASSERT_TRUE(Reconnects(client));
    EXPECT_TRUE(WaitUntil([&] { return Logged(report) == 2; }));
    EXPECT_EQ(Logged("the broker refuses"), 2U);
}

class ABurst : public BrokerTest {
protected:
    ABurst() : BrokerTest(0) { BrokerSettings().port = server.Port(); }

    std::atomic<bool> sent{false};
    /// A thousand messages, and the refusal of the subscription as the end.
    FakeBrokerServer server{[this](FakeBrokerServer::Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        std::string burst;
        for (int number = 0; number < 1000; ++number)
            burst += Encode(MqttMessage{"burst", "x", 0, false, false, 0});
        if (const auto request = session.Read())
            session.Send(burst + EncodeSuback(PacketId(*request), 0x80));
        sent = true;
        session.Serve();
    }};
};

TEST_F(ABurst, IsHandedOutBeforeItsEndIsRead) {
    std::atomic<std::size_t> endsBeforeTheFirst{0};
    TestClient client;
    client.onConnect = [&] { WaitUntil([&] { return sent.load(); }); };
    client.onMessage = [&](const std::string&, const std::string&) {
        if (client.ReceivedCount() == 1)
            endsBeforeTheFirst = Logged("the broker refuses the subscription");
    };
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("burst", 0));
    ASSERT_TRUE(WaitUntil([&] { return client.ReceivedCount() == 1000; }));
    ASSERT_EQ(client.PublishMessage("end", "", true), 0);
    ASSERT_TRUE(WaitUntil([&] { return client.Delivered().size() == 1; }));
    EXPECT_EQ(endsBeforeTheFirst, 0U);
    EXPECT_EQ(Logged("the broker refuses the subscription"), 1U);
}

class AClientOfABrokerThatReadsNothing : public BrokerTest {
protected:
    AClientOfABrokerThatReadsNothing() : BrokerTest(0), server(FakeBrokerServer::AcceptAndFreeze) {
        BrokerSettings().port = server.Port();
        BrokerSettings().maxOutstandingBytes = 20000;
    }

    /// Publishes until the first refusal and returns it.
    static int Fill(TestClient& client, bool assured) {
        const std::string payload(1000, 'x');
        for (int number = 0; number < 200000; ++number) {
            if (const int status = client.PublishMessage("topic", payload, assured); status != 0)
                return status;
        }
        return 0;
    }

    FakeBrokerServer server;
};

TEST_F(AClientOfABrokerThatReadsNothing, IsRefusedOnceTheOutstandingBytesAreUsedUp) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(Fill(client, true), QueueOwner::OUTSTANDING_FULL);
    EXPECT_EQ(client.PublishMessage("topic", std::string(1000, 'x'), true), QueueOwner::OUTSTANDING_FULL);
    EXPECT_TRUE(WaitUntil([&] { return Logged("the broker does not keep up") == 1; }));
    EXPECT_TRUE(client.Disconnect());
}

TEST_F(AClientOfABrokerThatReadsNothing, IsRefusedPlainPublicationsTooOnceTheSocketIsFull) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(Fill(client, false), QueueOwner::OUTSTANDING_FULL);
}

TEST_F(AClientOfABrokerThatReadsNothing, IsToldAboutAPayloadThatCanNeverFit) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    // Topic, payload and 128 bytes of bookkeeping count.
    EXPECT_EQ(client.PublishMessage("topic", std::string(20000 - 128 - 4, 'x'), true), QueueOwner::PAYLOAD_TOO_LARGE);
    EXPECT_EQ(client.PublishMessage("topic", std::string(20000 - 128 - 5, 'x'), true), 0);
}

TEST_F(AClientOfABrokerThatReadsNothing, DisconnectsWithinASecond) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    Fill(client, false);
    EXPECT_LT(TimeOf([&] { EXPECT_TRUE(client.Disconnect()); }), 1s + SLACK);
}

TEST_F(AClientOfABrokerThatReadsNothing, IsDestroyedWithinAFifthOfASecond) {
    auto client = std::make_unique<TestClient>();
    ASSERT_TRUE(client->Connect());
    Fill(*client, false);
    EXPECT_LT(TimeOf([&] { client.reset(); }), 200ms + SLACK);
}

TEST_F(AClientOfABrokerThatReadsNothing, MayFillAFreshConnectionAnew) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_EQ(Fill(client, false), QueueOwner::OUTSTANDING_FULL);
    ASSERT_TRUE(WaitUntil([&] { return Logged("the broker does not keep up") == 1; }));
    ASSERT_TRUE(client.Disconnect());
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(client.PublishMessage("topic", std::string(15000, 'x'), false), 0);
    EXPECT_EQ(Fill(client, false), QueueOwner::OUTSTANDING_FULL);
    EXPECT_TRUE(WaitUntil([&] { return Logged("the broker does not keep up") == 2; }));
    EXPECT_EQ(Logged("the broker keeps up again"), 0U);
}

TEST_F(AClientOfABrokerThatReadsNothing, HasRoomAgainOnceTheConnectionWasLost) {
    std::atomic<bool> down{false};
    server.Behave([&](FakeBrokerServer::Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        WaitUntil([&] { return down.load(); });
    });
    TestClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_EQ(Fill(client, false), QueueOwner::OUTSTANDING_FULL);
    server.Behave(FakeBrokerServer::Accept);
    down = true;
    ASSERT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
    EXPECT_EQ(client.PublishMessage("topic", std::string(15000, 'x'), false), 0);
    EXPECT_EQ(Logged("; 0 subscriptions and 0 announcements made again; 1 publications were refused\""), 1U);
}

TEST_F(AClientOfABrokerThatReadsNothing, LeavesNoRecordUnwrittenWhenItIsDestroyedAtOnce) {
    auto client = std::make_unique<TestClient>();
    std::promise<void> connected;
    std::promise<void> destroyed;
    client->onConnect = [&] {
        std::promise<void>& done = destroyed; // unlike what was captured, it outlives the client
        connected.get_future().wait();
        Fill(*client, true);
        client.reset();
        done.set_value();
    };
    EXPECT_TRUE(client->Connect());
    connected.set_value();
    ASSERT_EQ(destroyed.get_future().wait_for(PATIENCE), std::future_status::ready);
    EXPECT_EQ(Logged("the broker does not keep up"), 1U);
}

TEST_F(AClientOfABrokerThatReadsNothing, IsToldThatTheBrokerKeepsUpOnceHalfOfTheBytesAreFree) {
    std::atomic<int> acknowledged{0};
    FakeBrokerServer slow([&](FakeBrokerServer::Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        for (int number = 1; const auto packet = session.Read(); ++number) {
            WaitUntil([&] { return acknowledged >= number; });
            session.Send(EncodePuback(DecodePublish(*packet).id));
        }
    });
    BrokerSettings().port = slow.Port();
    TestClient client;
    ASSERT_TRUE(client.Connect());
    const std::string quarter(20000 / 4 - 128 - 5, 'x');
    for (int number = 1; number <= 4; ++number)
        ASSERT_EQ(client.PublishMessage("topic", quarter, true), 0);
    ASSERT_EQ(client.PublishMessage("topic", quarter, true), QueueOwner::OUTSTANDING_FULL);
    const auto saidAfter = [&](int acknowledgements) {
        acknowledged = acknowledgements;
        EXPECT_TRUE(WaitUntil([&] { return static_cast<int>(client.Delivered().size()) == acknowledgements; }));
        return Logged("the broker keeps up again; 1 publications were refused");
    };
    EXPECT_EQ(saidAfter(1), 0U);
    EXPECT_EQ(saidAfter(2), 1U);
    EXPECT_EQ(saidAfter(4), 1U);
}

TEST_F(AClientOfABrokerThatReadsNothing, MakesRoomWhenTheBrokerReadsAgain) {
    std::atomic<bool> reading{false};
    FakeBrokerServer slow([&](FakeBrokerServer::Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        WaitUntil([&] { return reading.load(); });
        session.Serve();
    });
    BrokerSettings().port = slow.Port();
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(Fill(client, true), QueueOwner::OUTSTANDING_FULL);
    reading = true;
    EXPECT_TRUE(WaitUntil([&] { return client.PublishMessage("topic", "x", true) == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return Logged("the broker keeps up again") == 1; }));
}

} // namespace OrvTest
