// SPDX-License-Identifier: Apache-2.0
// Want of memory, at every single place where the client asks for some: it costs what could not be kept, and nothing
// else.
#include "BrokerFixture.h"
#include "CountedNew.h"

#include <atomic>
#include <memory>

#ifndef ORV_ALLOCATIONS_NOT_COUNTED

namespace OrvTest {

using QUILMQTT::QueueOwner;

class AClientThatRunsOutOfMemory : public BrokerTest {
protected:
    AClientThatRunsOutOfMemory() : BrokerTest(0) {
        BrokerSettings().port = server.Port();
        client = std::make_unique<TestClient>();
        client->onMessage = [this](const std::string& topic, const std::string& message) {
            if (topic == "arm")
                FailAllocation(std::stoi(message));
            failures += HasFailedAllocation() ? 1 : 0;
            if (topic == "check")
                FailAllocation(0);
        };
        EXPECT_TRUE(client->Connect("available", "false", true) && client->Subscribe("#", 1));
    }

    /// Sends this to the client as a message, over the latest connection.
    void Publish(const std::string& topic, const std::string& message) {
        EXPECT_EQ(client->PublishMessage("echo", topic + "=" + message, false), 0);
    }

    /// The delivery thread's allocation of this number fails from now on.
    void Arm(int allocation) {
        Publish("arm", std::to_string(allocation));
        EXPECT_TRUE(WaitUntil([&] { return client->HasReceived("arm", std::to_string(allocation)); }));
    }

    /// A message that arrives, at the second attempt at the latest.
    bool Check(int number) {
        const std::string mark = "check " + std::to_string(number);
        const auto arrives = [&] {
            return WaitUntil([&] { return client->PublishMessage("echo", "check=" + mark, false) == 0; }) &&
                   WaitUntil([&] { return client->HasReceived("check", mark); }, 500ms);
        };
        return arrives() || arrives();
    }

    static std::string Long(const std::string& text) { return text + std::string(100, 'x'); }

    /// A broker that sends to its client what that publishes on "echo", and hangs up when it is asked to.
    FakeBrokerServer server{[](FakeBrokerServer::Session& session) {
        while (const auto packet = session.Read()) {
            if (packet->type == MqttPacket::Type::CONNECT)
                session.Send(EncodeConnack(0));
            else if (packet->type == MqttPacket::Type::SUBSCRIBE)
                session.Send(EncodeSuback(PacketId(*packet), 0x80));
            else if (packet->type == MqttPacket::Type::PINGREQ)
                session.Send(Encode(MqttPacket{MqttPacket::Type::PINGRESP, 0, {}}));
            if (packet->type != MqttPacket::Type::PUBLISH)
                continue;
            const auto message = DecodePublish(*packet);
            if (message.qos > 0)
                session.Send(EncodePuback(message.id));
            if (message.topic == "hang up") {
                session.Send(std::string("\xf0\x00", 2)); // a broker's fault: no other client with this id is suspected
                return;
            }
            if (message.topic == "echo") {
                const auto middle = message.payload.find('=');
                session.Send(Encode(MqttMessage{message.payload.substr(0, middle), message.payload.substr(middle + 1),
                                                0, false, false, 0}));
            }
        }
    }};
    std::atomic<int> failures{0};
    std::unique_ptr<TestClient> client;
};

TEST_F(AClientThatRunsOutOfMemory, LosesTheMessageCountsItAndGoesOn) {
    for (int allocation = 1; allocation <= 20; ++allocation) {
        Arm(allocation);
        Publish(Long("topic"), Long("payload"));
        ASSERT_TRUE(Check(allocation)) << allocation;
    }
    EXPECT_GE(failures, 3);
    EXPECT_GE(Logged("client: out of memory: 1 messages or acknowledgements did not reach the application\""), 2U);
    EXPECT_EQ(Logged("lost the connection"), 0U);
}

TEST_F(AClientThatRunsOutOfMemory, LosesTheAcknowledgementCountsItAndGoesOn) {
    for (int allocation = 1; allocation <= 12; ++allocation) {
        Arm(allocation);
        for (int number = 0; number < 3; ++number)
            EXPECT_EQ(client->PublishMessage(Long("assured"), "", true), 0);
        ASSERT_TRUE(Check(allocation)) << allocation;
    }
    EXPECT_GT(failures, 3);
    EXPECT_EQ(Logged("lost the connection"), 0U);
}

TEST_F(AClientThatRunsOutOfMemory, ComesBackWithAllStateWhenItHappensDuringALossOrAReconnection) {
    client->PublishRetainedMessage(Long("led"), Long("On"), true);
    for (int allocation = 1; allocation <= 50; ++allocation) {
        Arm(allocation);
        const int connections = server.Connections();
        const std::size_t publications = server.Count(MqttPacket::Type::PUBLISH);
        EXPECT_EQ(client->PublishMessage("hang up", "", false), 0);
        ASSERT_TRUE(WaitUntil([&] { return server.Connections() == connections + 1; })) << allocation;
        ASSERT_TRUE(WaitUntil([&] { return server.Count(MqttPacket::Type::PUBLISH) >= publications + 2; }))
            << allocation << ": nothing was announced";
        ASSERT_TRUE(Check(allocation)) << allocation;
    }
    EXPECT_GT(failures, 10);
    EXPECT_GE(client->Connects(), 40);
}

TEST_F(AClientThatRunsOutOfMemory, IsToldSoByAPublicationAndAnnouncesNothingThatIsSuperseded) {
    const std::string topic = Long("dns");
    int refused = 0;
    for (int allocation = 1; allocation <= 15; ++allocation) {
        const std::string superseded = Long("superseded" + std::to_string(allocation));
        const std::string latest = Long("latest" + std::to_string(allocation));
        const std::size_t delivered = client->Delivered().size();
        ASSERT_EQ(client->PublishRetainedMessage(topic, superseded, true), 0);
        ASSERT_TRUE(WaitUntil([&] { return client->Delivered().size() > delivered; }));
        FailAllocation(allocation);
        const int status = client->PublishRetainedMessage(topic, latest, true);
        const bool failed = HasFailedAllocation();
        FailAllocation(0);
        EXPECT_EQ(status, failed ? QueueOwner::FAILED : QueueOwner::HANDED_OVER) << allocation;
        refused += failed ? 1 : 0;
        const std::size_t before = server.Packets().size();
        const int connections = server.Connections();
        ASSERT_TRUE(WaitUntil([&] { return client->PublishMessage("hang up", "", false) == 0; }));
        ASSERT_TRUE(WaitUntil([&] { return server.Connections() == connections + 1; }));
        ASSERT_TRUE(Check(allocation));
        const auto packets = server.Packets();
        for (std::size_t number = before; number < packets.size(); ++number) {
            if (packets[number].type == MqttPacket::Type::PUBLISH) {
                EXPECT_NE(DecodePublish(packets[number]).payload, superseded) << allocation;
            }
        }
    }
    EXPECT_GE(refused, 5);
}

TEST_F(AClientThatRunsOutOfMemory, IsToldSoByASubscriptionThatIsThenNotMade) {
    int refused = 0;
    ASSERT_TRUE(Check(0)) << "the first subscription has arrived by then";
    for (int allocation = 1; allocation <= 5; ++allocation) {
        const std::size_t before = server.Count(MqttPacket::Type::SUBSCRIBE);
        const std::string filter = Long("filter" + std::to_string(allocation));
        FailAllocation(allocation);
        const bool made = client->Subscribe(filter, 1);
        const bool failed = HasFailedAllocation();
        FailAllocation(0);
        EXPECT_EQ(made, !failed);
        refused += failed ? 1 : 0;
        ASSERT_TRUE(Check(allocation));
        EXPECT_EQ(server.Count(MqttPacket::Type::SUBSCRIBE), before + (made ? 1 : 0));
    }
    EXPECT_GE(refused, 2);
}

TEST_F(AClientThatRunsOutOfMemory, IsToldSoByAConnectAndConnectsWhenThereIsSome) {
    TestClient other("other");
    int failed = 0;
    for (int allocation = 1; allocation <= 40; ++allocation) {
        const std::string topic = Long("will");
        FailAllocation(allocation);
        bool connected = false;
        try {
            connected = other.Connect(topic, topic, true);
        } catch (const std::bad_alloc&) {
            // Of the arguments' copies: nothing has begun.
        }
        const bool hasFailed = HasFailedAllocation();
        FailAllocation(0);
        failed += connected ? 0 : 1;
        EXPECT_TRUE(connected || hasFailed) << allocation;
        EXPECT_TRUE(other.Connect()) << allocation;
    }
    EXPECT_GT(failed, 5);
}

} // namespace OrvTest

#endif
