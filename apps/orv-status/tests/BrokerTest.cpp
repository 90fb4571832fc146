// SPDX-License-Identifier: Apache-2.0
#include "Broker.h"

#include <FakeBrokerServer.h>
#include <MosquittoBroker.h>
#include <RawClient.h>
#include <WaitUntil.h>

#include <gtest/gtest.h>
#include <poll.h>

#include <string>

namespace OrvStatus {
namespace {

using OrvTest::FakeBrokerServer;
using OrvTest::MqttMessage;
using OrvTest::MqttPacket;
using OrvTest::WaitUntil;

const std::string TOPIC = "/orv/modem/sim/provider";

MqttMessage Message(const std::string& payload, bool retained) {
    MqttMessage message;
    message.topic = TOPIC;
    message.payload = payload;
    message.retained = retained;
    return message;
}

/// orv-status's connection, moved on while it is waited for.
class Listener {
public:
    explicit Listener(int port) : broker({"127.0.0.1", port, "", ""}) {}

    template <typename Condition>
    bool Until(Condition condition) {
        return WaitUntil([&] {
            broker.Step(std::chrono::steady_clock::now());
            return condition();
        });
    }
    bool Settles() {
        return Until([this] { return broker.Settled(); });
    }
    bool Hears(const std::string& payload) {
        return Until([&] { return Last() != nullptr && Last()->payload == payload; });
    }
    const BrokerView::Message* Last() const {
        const auto found = View().topics.find(TOPIC);
        return found == View().topics.end() ? nullptr : &found->second;
    }
    const BrokerView& View() const { return broker.View(); }

private:
    Broker broker;
};

class AListener : public testing::Test {
protected:
    OrvTest::MosquittoBroker server;
    OrvTest::RawClient neighbour{server.Port()};
    Listener listener{server.Port()};
};

TEST_F(AListener, KnowsOfEachMessageWhetherTheBrokerRetainsIt) {
    neighbour.Publish(Message("before", true));
    ASSERT_TRUE(listener.Settles());
    ASSERT_NE(listener.Last(), nullptr);
    EXPECT_EQ(listener.Last()->retained, true);
    neighbour.Publish(Message("live", true));
    ASSERT_TRUE(listener.Hears("live"));
    EXPECT_EQ(listener.Last()->retained, true);
    neighbour.Publish(Message("passing", false));
    ASSERT_TRUE(listener.Hears("passing"));
    EXPECT_EQ(listener.Last()->retained, false);
}

TEST_F(AListener, KnowsItOfAnLedToo) {
    ASSERT_TRUE(listener.Settles());
    MqttMessage message = Message("On", true);
    message.topic = GREEN;
    neighbour.Publish(message);
    ASSERT_TRUE(listener.Until([this] { return listener.View().topics.count(GREEN) == 1; }));
    EXPECT_EQ(listener.View().topics.at(GREEN).retained, true);
}

TEST_F(AListener, ForgetsWhatIsTakenBackAndNothingElse) {
    neighbour.Publish(Message("before", true));
    ASSERT_TRUE(listener.Settles());
    neighbour.Publish(Message("", false)); // the broker goes on retaining the one before
    ASSERT_TRUE(listener.Hears(""));
    EXPECT_EQ(listener.Last()->retained, false);
    neighbour.Publish(Message("", true));
    EXPECT_TRUE(listener.Until([this] { return listener.Last() == nullptr; }));
}

TEST_F(AListener, SaysWhetherItIsRefusedOrTheBrokerIsAway) {
    OrvTest::MosquittoBroker strict("allow_anonymous false\n");
    Listener stranger(strict.Port());
    ASSERT_TRUE(stranger.Settles());
    EXPECT_EQ(stranger.View().state, Known::REFUSING);
    EXPECT_EQ(
        stranger.View().reason,
        "Not authorized. Set a user and password that it knows: username and password in [broker] of gateway.ini, "
        "or --user and --password-file");
    strict.Kill();
    EXPECT_TRUE(stranger.Until([&] { return stranger.View().reason == "Connection refused"; }))
        << stranger.View().reason;
}

/// How it meets a CONNECT of version 5.
struct Old {
    const char* name;
    void (*answer)(FakeBrokerServer::Session&);
};

class ABrokerOfVersion311 : public testing::TestWithParam<Old> {
protected:
    static constexpr char LEVEL_5 = 5;
    static constexpr std::size_t LEVEL = 6; // behind the protocol's name

    static bool IsSpokenToInVersion5(const MqttPacket& connect) { return connect.body.at(LEVEL) == LEVEL_5; }

    /// A message that is retained, and one that comes while it is connected.
    static void Serve(FakeBrokerServer::Session& session) {
        session.Send(OrvTest::EncodeConnack(0));
        for (const bool retained : {true, false}) {
            const std::optional<MqttPacket> subscription = session.Read();
            if (!subscription)
                return;
            EXPECT_EQ(subscription->body.back(), 0) << "a version 3.1.1 subscription has no option but the QoS";
            session.Send(OrvTest::EncodeSuback(OrvTest::PacketId(*subscription), 0));
            session.Send(Encode(Message(retained ? "before" : "live", retained)));
        }
        session.Serve();
    }

    FakeBrokerServer server{[](FakeBrokerServer::Session& session) {
        const std::optional<MqttPacket> connect = session.Read();
        if (connect && IsSpokenToInVersion5(*connect))
            GetParam().answer(session);
        else if (connect)
            Serve(session);
    }};
};

TEST_P(ABrokerOfVersion311, IsReadWithoutAGuessAtWhatItRetains) {
    Listener listener(server.Port());
    ASSERT_TRUE(listener.Settles());
    EXPECT_EQ(listener.View().state, Known::PRESENT); // and was not called away meanwhile
    ASSERT_NE(listener.Last(), nullptr);
    ASSERT_TRUE(listener.Hears("live"));
    EXPECT_EQ(listener.Last()->retained, std::nullopt);
    EXPECT_EQ(server.Connections(), 2);
}

INSTANTIATE_TEST_SUITE_P(
    , ABrokerOfVersion311,
    testing::Values(Old{"Refuses", [](FakeBrokerServer::Session& session) { session.Send(OrvTest::EncodeConnack(1)); }},
                    Old{"HangsUp", [](FakeBrokerServer::Session&) {}}),
    [](const auto& old) { return old.param.name; });

TEST(ABrokerThatNobodyUnderstands, IsAway) {
    FakeBrokerServer server(FakeBrokerServer::SpeakGarbage);
    Listener listener(server.Port());
    ASSERT_TRUE(listener.Settles());
    EXPECT_EQ(listener.View().state, Known::AWAY);
    EXPECT_NE(listener.View().reason, "");
}

} // namespace
} // namespace OrvStatus
