// SPDX-License-Identifier: Apache-2.0
// Connecting: to brokers that are away or misbehave, and the ends of connections.
#include "BrokerFixture.h"
#include "NoMoreDescriptors.h"

#include <dlfcn.h>
#include <future>
#include <memory>

namespace {
std::atomic<int> initialisations{0};
}

// In the place of the client library's.
extern "C" int mosquitto_lib_init() {
    ++initialisations;
    return reinterpret_cast<int (*)()>(dlsym(RTLD_NEXT, "mosquitto_lib_init"))();
}

namespace OrvTest {

class ACallerWithoutABroker : public BrokerTest {
protected:
    ACallerWithoutABroker() : BrokerTest(0) { BrokerSettings().port = closed.Number(); }

    /// Connects, and checks that it fails within the bound.
    void ExpectFailure(std::uint16_t port, const std::string& clientId = "client") {
        BrokerSettings().port = port;
        TestClient client(clientId);
        bool connected = true;
        EXPECT_LT(TimeOf([&] { connected = client.Connect("will", "gone", true); }), 3s + SLACK);
        EXPECT_FALSE(connected);
        EXPECT_EQ(client.PublishMessage("topic", "payload", true), QUILMQTT::QueueOwner::NOT_CONNECTED);
        EXPECT_EQ(client.Connects(), 0);
        EXPECT_FALSE(client.Disconnect());
    }

    void ExpectFailure(const FakeBrokerServer::Behaviour& behaviour) {
        FakeBrokerServer server(behaviour);
        ExpectFailure(server.Port());
    }

    const ReservedPort closed;
};

TEST_F(ACallerWithoutABroker, IsToldSoByAClosedPort) {
    ExpectFailure(closed.Number());
    EXPECT_EQ(Logged("cannot connect to 127.0.0.1:" + std::to_string(BrokerSettings().port) +
                     ": Connection refused; is the broker running?"),
              1U);
}

TEST_F(ACallerWithoutABroker, IsToldSoByARefusal) {
    ExpectFailure(FakeBrokerServer::Refuse(5));
    EXPECT_EQ(Logged("refused by the broker: not authorised; set [broker] username and password"), 1U);
}

TEST_F(ACallerWithoutABroker, IsToldSoByAServerThatIsNoBroker) {
    ExpectFailure(FakeBrokerServer::SpeakGarbage);
}

TEST_F(ACallerWithoutABroker, IsToldSoByAServerThatHangsUp) {
    ExpectFailure(FakeBrokerServer::CloseAtOnce);
}

TEST_F(ACallerWithoutABroker, IsToldSoWhenNobodyAnswers) {
    ExpectFailure(FakeBrokerServer::StaySilent);
    EXPECT_EQ(Logged("no answer within 3 s"), 1U);
}

TEST_F(ACallerWithoutABroker, IsToldSoByAFullBacklog) {
    const FullBacklog backlog;
    ExpectFailure(backlog.Port());
}

TEST_F(ACallerWithoutABroker, IsToldSoByARefusalOnTheDeliveryThreadToo) {
    FakeBrokerServer server([](FakeBrokerServer::Session& session) { session.Serve(); });
    BrokerSettings().port = server.Port();
    TestClient client;
    std::promise<bool> second;
    client.onConnect = [&] {
        server.Behave(FakeBrokerServer::Refuse(3));
        second.set_value(client.Connect());
    };
    // The callback's call replaces this one, whichever of the two is told first.
    client.Connect();
    EXPECT_FALSE(second.get_future().get());
    EXPECT_EQ(client.PublishMessage("topic", "payload", false), QUILMQTT::QueueOwner::NOT_CONNECTED);
}

TEST_F(ACallerWithoutABroker, IsNotHeldUpByANameThatWouldHaveToBeLookedUp) {
    BrokerSettings().host = "broker.example";
    ExpectFailure(closed.Number());
    EXPECT_EQ(Logged("names are not looked up; set [broker] host to an address"), 1U);
}

TEST_F(ACallerWithoutABroker, MayNameItsOwnMachine) {
    for (const char* host : {"localhost", "::1"}) {
        BrokerSettings().host = host;
        ExpectFailure(closed.Number());
    }
    EXPECT_EQ(Logged("names are not looked up"), 0U);
    EXPECT_EQ(Logged("cannot connect to localhost:"), 1U);
    EXPECT_EQ(Logged("cannot connect to ::1:"), 1U);
}

TEST_F(ACallerWithoutABroker, IsToldTheReasonOfEachAttemptAnew) {
    FakeBrokerServer server(FakeBrokerServer::Refuse(5));
    BrokerSettings().port = server.Port();
    TestClient client;
    EXPECT_FALSE(client.Connect());
    server.Behave(FakeBrokerServer::CloseAtOnce);
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(Logged("refused by the broker: not authorised"), 1U);
    EXPECT_EQ(Logged("the broker closed the connection"), 1U);
}

TEST_F(ACallerWithoutABroker, IsToldThatItsIdHoldsANul) {
    FakeBrokerServer server(FakeBrokerServer::Accept);
    ExpectFailure(server.Port(), std::string("a\0b", 3));
    EXPECT_EQ(Logged(": the client id \"a"), 1U);
    EXPECT_EQ(Logged("\" holds a control character"), 1U);
}

TEST_F(ACallerWithoutABroker, ConnectsAsSoonAsThereAreDescriptorsAgain) {
    FakeBrokerServer server(FakeBrokerServer::Accept);
    BrokerSettings().port = server.Port();
    auto limit = std::make_unique<NoMoreDescriptors>();
    TestClient client;
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(Logged("no descriptor left"), 1U);
    limit.reset();
    EXPECT_TRUE(client.Connect());
}

TEST_F(ACallerWithoutABroker, IsToldThatThereIsNoDescriptorLeft) {
    TestClient client;
    {
        const NoMoreDescriptors now;
        EXPECT_FALSE(client.Connect());
    }
    EXPECT_EQ(Logged(": Too many open files"), 1U);
}

TEST_F(ACallerWithoutABroker, LeavesNoThreadAndNoDescriptorBehind) {
    FakeBrokerServer refusing(FakeBrokerServer::Refuse(2));
    {
        TestClient warmUp;
        warmUp.Connect();
    }
    TestClient client;
    const auto before = ProcessFigures::Now();
    for (int cycle = 0; cycle < 50; ++cycle) {
        BrokerSettings().port = cycle % 2 == 0 ? closed.Number() : refusing.Port();
        TestClient another;
        EXPECT_FALSE(another.Connect());
        EXPECT_FALSE(client.Connect());
    }
    EXPECT_TRUE(WaitUntil([&] { return ProcessFigures::Now().descriptors <= before.descriptors; }));
    EXPECT_TRUE(WaitUntil([&] { return ProcessFigures::Now().threads <= before.threads; }));
}

TEST_F(ACallerWithoutABroker, SucceedsOnceThereIsOne) {
    TestClient client;
    EXPECT_FALSE(client.Connect());
    FakeBrokerServer server(FakeBrokerServer::Accept);
    BrokerSettings().port = server.Port();
    TestClient later;
    EXPECT_TRUE(later.Connect());
}

TEST_F(ACallerWithoutABroker, WaitsForAnAnswerThatTakesTwoSeconds) {
    FakeBrokerServer server(FakeBrokerServer::AcceptAfter(2s));
    BrokerSettings().port = server.Port();
    TestClient client;
    EXPECT_TRUE(client.Connect());
    EXPECT_EQ(client.PublishMessage("topic", "payload", false), 0);
}

TEST_F(ACallerWithoutABroker, IsAnsweredWhenAnotherThreadDisconnectsMeanwhile) {
    FakeBrokerServer server(FakeBrokerServer::StaySilent);
    BrokerSettings().port = server.Port();
    TestClient client;
    auto connecting = std::async(std::launch::async, [&] { return client.Connect(); });
    ASSERT_TRUE(WaitUntil([&] { return server.Connections() == 1; }));
    EXPECT_LT(TimeOf([&] { client.Disconnect(); }), 1s + SLACK);
    EXPECT_FALSE(connecting.get());
}

class AConnectThatIsImpossible : public BrokerTest {
protected:
    AConnectThatIsImpossible() : BrokerTest(0) { BrokerSettings().port = server.Port(); }

    /// Checks that nothing but this is said of the attempt.
    void ExpectReason(const std::string& reason, const std::string& willTopic = "will",
                      const std::string& willMessage = "gone", const std::string& clientId = "client") {
        TestClient client(clientId);
        const std::size_t before = Log().size();
        EXPECT_FALSE(client.Connect(willTopic, willMessage, true));
        ASSERT_EQ(Log().size(), before + 1);
        EXPECT_EQ(Log().back(), "log warning QueueOwner \"" + clientId + ": cannot connect to 127.0.0.1:" +
                                    std::to_string(server.Port()) + ": " + reason + "\"");
        EXPECT_EQ(server.Connections(), 0);
    }

    FakeBrokerServer server{FakeBrokerServer::Accept};
};

TEST_F(AConnectThatIsImpossible, NamesAWillsTopicWithAWildcard) {
    ExpectReason("the last will's topic \"features/#/available\" holds a wildcard (+ or #)", "features/#/available");
    ExpectReason("the last will's topic \"+\" holds a wildcard (+ or #)", "+");
}

TEST_F(AConnectThatIsImpossible, NamesAWillsTopicThatIsNoText) {
    ExpectReason("the last will's topic \"\" is empty", "");
    ExpectReason("the last will's topic \"a\nb\" holds a control character", "a\nb");
    ExpectReason("the last will's topic \"a\xff\" is not UTF-8 text", "a\xff");
    ExpectReason("the last will's topic \"" + std::string(128, 'x') + "...\" is longer than 65535 bytes",
                 std::string(65536, 'x'));
}

TEST_F(AConnectThatIsImpossible, NamesAWillsMessageThatIsTooLong) {
    ExpectReason("the last will's message is longer than 65535 bytes", "will", std::string(65536, 'x'));
}

TEST_F(AConnectThatIsImpossible, NamesAClientIdThatIsNone) {
    ExpectReason("the client id \"\" is empty", "will", "gone", "");
}

TEST_F(AConnectThatIsImpossible, NamesAUserNameThatIsNone) {
    BrokerSettings().username = "\xff";
    ExpectReason("[broker] username \"\xff\" is not UTF-8 text");
}

TEST_F(AConnectThatIsImpossible, IsNotMadeOneByAWillsTopicWithAnEmptyLevel) {
    TestClient client;
    EXPECT_TRUE(client.Connect("features//available", "gone", true));
    EXPECT_EQ(Logged("cannot connect"), 0U);
}

TEST_F(ACallerWithoutABroker, HasTheClientLibraryInitialisedOnce) {
    std::vector<std::future<bool>> callers;
    for (int number = 0; number < 4; ++number)
        callers.push_back(std::async(std::launch::async, [] { return TestClient().Connect(); }));
    for (auto& caller : callers)
        EXPECT_FALSE(caller.get());
    EXPECT_EQ(initialisations, 1) << "it seeds rand() and is not safe for two threads";
}

class AClientOfARealBroker : public RealBrokerTest {};

TEST_F(AClientOfARealBroker, MayDisconnectBeforeItConnectsAndTwiceAfterwards) {
    TestClient client;
    EXPECT_FALSE(client.Disconnect());
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(client.Disconnect());
    EXPECT_FALSE(client.Disconnect());
    EXPECT_TRUE(client.Connect());
    EXPECT_EQ(Logged("client: disconnecting from 127.0.0.1:" + std::to_string(broker.Port())), 1U);
}

TEST_F(AClientOfARealBroker, IsToldThatItIsConnected) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(WaitUntil([&] { return client.Connects() == 1; }));
    EXPECT_TRUE(client.Disconnect());
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
}

TEST_F(AClientOfARealBroker, LeavesNothingBehindAfterAHundredConnections) {
    TestClient client;
    {
        TestClient warmUp("warm-up");
        ASSERT_TRUE(warmUp.Connect());
    }
    const auto before = ProcessFigures::Now();
    for (int cycle = 0; cycle < 100; ++cycle) {
        ASSERT_TRUE(client.Connect("will", "gone", false));
        ASSERT_TRUE(client.Disconnect());
    }
    EXPECT_TRUE(WaitUntil([&] { return ProcessFigures::Now().descriptors <= before.descriptors; }));
    EXPECT_TRUE(WaitUntil([&] { return ProcessFigures::Now().threads <= before.threads; }));
}

TEST_F(AClientOfARealBroker, KeepsItsWillToItselfWhenItDisconnects) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("#"));
    TestClient client;
    ASSERT_TRUE(client.Connect("will", "gone", false));
    ASSERT_TRUE(client.Disconnect());
    ASSERT_TRUE(witness.Publish({"fence", "", 0, false, false, 0}));
    EXPECT_EQ(witness.NextMessage()->topic, "fence");
}

TEST_F(AClientOfARealBroker, HasItsWillSpokenWhenItIsDestroyed) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("will"));
    {
        TestClient client;
        ASSERT_TRUE(client.Connect("will", "gone", true));
    }
    const auto will = witness.NextMessage();
    ASSERT_TRUE(will);
    EXPECT_EQ(will->payload, "gone");
    EXPECT_EQ(Retained("will"), "gone");
}

TEST_F(AClientOfARealBroker, GetsItsLastPublicationsOutBeforeItIsDestroyed) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("#", 1));
    std::vector<std::string> expected;
    for (int number = 0; number < 20; ++number)
        expected.push_back(std::to_string(number));
    expected.emplace_back("gone");
    std::chrono::milliseconds shortest = PATIENCE;
    for (int round = 0; round < 20; ++round) {
        auto client = std::make_unique<TestClient>();
        ASSERT_TRUE(client->Connect("will", "gone", false));
        // Input that nobody reads any more must not cut the output short.
        ASSERT_TRUE(client->Subscribe("last", 1));
        for (int number = 0; number < 20; ++number)
            ASSERT_EQ(client->PublishMessage("last", std::to_string(number), true), 0);
        shortest = std::min(shortest, TimeOf([&] { client.reset(); }));
        ASSERT_EQ(NextPayloads(witness, 21), expected);
    }
    EXPECT_LT(shortest, 200ms) << "the broker is told the end, not waited for";
}

TEST_F(AClientOfARealBroker, ChangesItsWillWithASecondConnectAndTheOldOneStaysSilent) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("#"));
    {
        TestClient client;
        ASSERT_TRUE(client.Connect("first", "gone", false));
        ASSERT_TRUE(client.Connect("second", "gone", false));
    }
    EXPECT_EQ(witness.NextMessage()->topic, "second");
}

TEST_F(AClientOfARealBroker, ForgetsItsSubscriptionsWithASecondConnect) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("old", 1));
    ASSERT_TRUE(client.Connect());
    client.PublishMessage("old", "x", true);
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_FALSE(client.HasReceived("old", "x"));
}

TEST_F(AClientOfARealBroker, IsKnownByItsIdAndTheConfiguredSuffix) {
    FakeBrokerServer server(FakeBrokerServer::Accept);
    BrokerSettings().port = server.Port();
    BrokerSettings().clientIdSuffix = "-2";
    BrokerSettings().username = "user";
    BrokerSettings().password = "word";
    TestClient client("ORV_Stack");
    ASSERT_TRUE(client.Connect());
    const MqttConnect said = DecodeConnect(server.Packets().at(0));
    EXPECT_EQ(said.clientId, "ORV_Stack-2");
    EXPECT_EQ(said.keepAlive, 5);
    EXPECT_TRUE(said.cleanSession);
    EXPECT_EQ(said.username, "user");
    EXPECT_EQ(said.password, "word");
    EXPECT_FALSE(said.will);
}

TEST_F(AClientOfARealBroker, IsNumberedAmongThoseOfItsOwnIdOnly) {
    BrokerSettings().clientIdSuffix = "-%n";
    const std::string oneId = FreshId("one");
    const std::string otherId = FreshId("other");
    TestClient first(oneId);
    TestClient second(otherId);
    ASSERT_TRUE(first.Connect() && second.Connect());
    EXPECT_TRUE(WaitUntil([&] { return Logged(oneId + "-1: connected to") == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return Logged(otherId + "-1: connected to") == 1; }));
}

TEST(AClientWithALastWill, SaysItAsItWasGivenAndForgetsItWithAConnectWithoutOne) {
    FakeBrokerServer server(FakeBrokerServer::Accept);
    BrokerSettings() = {};
    BrokerSettings().port = server.Port();
    TestClient client;
    const std::string anyBytes("\0\xff", 2);
    ASSERT_TRUE(client.Connect("first", anyBytes, false));
    ASSERT_TRUE(client.Connect("second", "", true));
    ASSERT_TRUE(client.Connect());
    std::vector<std::optional<MqttMessage>> wills;
    for (const MqttPacket& packet : server.Packets()) {
        if (packet.type == MqttPacket::Type::CONNECT)
            wills.push_back(DecodeConnect(packet).will);
    }
    ASSERT_EQ(wills.size(), 3U);
    EXPECT_EQ(wills[0], (MqttMessage{"first", anyBytes, 1, false, false, 0}));
    EXPECT_EQ(wills[1], (MqttMessage{"second", "", 1, true, false, 0}));
    EXPECT_EQ(wills[2], std::nullopt);
}

} // namespace OrvTest
