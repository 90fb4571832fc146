// SPDX-License-Identifier: Apache-2.0
// The fakes keep the contract where tests rely on it.
#include "CommonUtils/Logger.h"
#include "CommonUtils/Networking/ConnmanCommands.h"
#include "CommonUtils/StringHelpers.h"
#include "FakeBroker.h"
#include "FakeConnman.h"
#include "FakeGateway.h"
#include "FakeLogger.h"
#include "Journal.h"
#include "QuilMqtt/QueueOwner.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <thread>

using namespace OrvPlatformFake;

namespace {

class Client : public QUILMQTT::QueueOwner {
public:
    explicit Client(const std::string& id) : QueueOwner(id) {}
    ~Client() override { StopDelivery(); }
    void OnPublish(const std::string& topic, const std::string& message) override {
        received.push_back(topic + " " + message);
        if (then)
            then();
    }
    void OnConnect() override { ++connects; }
    using QueueOwner::StopDelivery;

    int connects = 0;
    Entries received;
    std::function<void()> then;
};

TEST(AFilter, MatchesTopicsByTheRules) {
    for (const auto& [filter, topic, matches] : {std::tuple{"/a/b", "/a/b", true},
                                                 {"/a/b", "/a/b/", false},
                                                 {"/a/b", "a/b", false},
                                                 {"/a/B", "/a/b", false},
                                                 {"/a/+", "/a/b", true},
                                                 {"/a/+", "/a/", true},
                                                 {"/a/+", "/a", false},
                                                 {"/a/+", "/a/b/c", false},
                                                 {"/+/b", "/a/b", true},
                                                 {"+/b", "/b", true},
                                                 {"/a/#", "/a/b", true},
                                                 {"/a/#", "/a/b/c", true},
                                                 {"/a/#", "/a", true},
                                                 {"/a/#", "/ab", false},
                                                 {"#", "/a/b", true},
                                                 {"/a", "", false}})
        EXPECT_EQ(FakeBroker::Matches(filter, topic), matches) << filter << " " << topic;
}

class TheFakeBroker : public ::testing::Test {
protected:
    TheFakeBroker() {
        FakeGateway::Reset();
        client.Connect("/will", "gone", true);
    }

    FakeBroker& broker = FakeBroker::Get();
    Client client{"client"};
};

TEST_F(TheFakeBroker, DeliversOnceToAClientWithOverlappingFilters) {
    client.Subscribe("/a/#", 1);
    client.Subscribe("/a/b", 1);
    broker.Inject("/a/b", "live");
    broker.Inject("/c", "not wanted");
    EXPECT_EQ(client.received, Entries{});
    broker.Deliver();
    EXPECT_EQ(client.received, (Entries{"/a/b live"}));
}

TEST_F(TheFakeBroker, DeliversRetainedMessagesOnceForEachSubscription) {
    broker.Inject("/a/b", "kept", true);
    broker.Deliver();
    client.Subscribe("/a/#", 1);
    client.Subscribe("/a/b", 1);
    broker.Deliver();
    EXPECT_EQ(client.received, (Entries{"/a/b kept", "/a/b kept"}));
}

TEST_F(TheFakeBroker, ForgetsARetainedMessageForAnEmptyOne) {
    EXPECT_EQ(client.PublishRetainedMessage("/a", "kept", false), 0);
    EXPECT_EQ(broker.Retained("/a"), "kept");
    client.PublishRetainedMessage("/a", "", false);
    EXPECT_FALSE(broker.HasRetained("/a"));
}

TEST_F(TheFakeBroker, SpeaksTheWillOfAConnectionThatDrops) {
    Client other("other");
    other.Connect();
    other.Subscribe("/will", 0);
    broker.DropConnection("client");
    broker.Deliver();
    EXPECT_EQ(other.received, (Entries{"/will gone"}));
    EXPECT_EQ(broker.Retained("/will"), "gone");
    EXPECT_FALSE(broker.IsConnected("client"));
}

TEST_F(TheFakeBroker, KeepsTheWillOfAClientThatSaysGoodBye) {
    EXPECT_TRUE(client.Disconnect());
    EXPECT_FALSE(client.Disconnect());
    broker.DropConnection("client");
    EXPECT_FALSE(broker.HasRetained("/will"));
}

TEST_F(TheFakeBroker, TakesNothingFromAClientThatIsNotConnected) {
    client.Disconnect();
    EXPECT_NE(client.PublishMessage("/a", "b", false), 0);
    EXPECT_FALSE(client.Subscribe("/a", 0));
}

TEST_F(TheFakeBroker, RestoresWhatWasLastAskedForWhetherItWasTakenOrNot) {
    Client witness("witness");
    witness.Connect();
    witness.Subscribe("/#", 0);
    client.Subscribe("/wanted", 0);
    client.PublishRetainedMessage("/dns", "inhibit", true);
    client.PublishMessage("/will", "here", false);
    client.PublishMessage("/command", "1", false);
    broker.DropConnection("client");
    EXPECT_EQ(client.PublishRetainedMessage("/dns", "permit", true), Client::NOT_CONNECTED);
    EXPECT_EQ(client.PublishMessage("/command", "2", false), Client::NOT_CONNECTED);
    EXPECT_EQ(client.PublishRetainedMessage("/dns/#", "inhibit", true), Client::MALFORMED_TOPIC);
    broker.Deliver();
    witness.received.clear();
    EXPECT_EQ(broker.Retained("/dns"), "inhibit");
    broker.RestoreConnection("client");
    EXPECT_EQ(client.connects, 1);
    broker.Inject("/wanted", "x");
    broker.Deliver();
    EXPECT_EQ(broker.Retained("/dns"), "permit");
    EXPECT_EQ(witness.received, (Entries{"/will here", "/dns permit", "/wanted x"}));
    EXPECT_EQ(client.received, (Entries{"/wanted x"}));
}

TEST_F(TheFakeBroker, RestoresNoConnectionThatWasEndedWithAGoodBye) {
    client.Disconnect();
    client.PublishRetainedMessage("/a", "refused", false);
    broker.RestoreConnection("client");
    EXPECT_FALSE(broker.IsConnected("client"));
    EXPECT_EQ(client.connects, 0);
    client.Connect();
    EXPECT_FALSE(broker.HasRetained("/a")) << "nothing is announced into a connection that the application makes";
}

TEST_F(TheFakeBroker, RestoresNoConnectionWhileItAcceptsNone) {
    broker.DropConnection("client");
    broker.SetReachable(false);
    broker.RestoreConnection("client");
    EXPECT_FALSE(broker.RestoreConnections());
    EXPECT_FALSE(broker.IsConnected("client"));
    broker.SetReachable(true);
    EXPECT_TRUE(broker.RestoreConnections());
    EXPECT_TRUE(broker.IsConnected("client"));
}

TEST_F(TheFakeBroker, TakesTheStateThatItHasRefusedOnceItTakesPublicationsAgain) {
    broker.SetPublishStatus(Client::OUTSTANDING_FULL);
    EXPECT_EQ(client.PublishRetainedMessage("/a", "kept", false), Client::OUTSTANDING_FULL);
    EXPECT_EQ(client.PublishMessage("/b", "lost", false), Client::OUTSTANDING_FULL);
    client.Subscribe("/#", 0);
    broker.SetPublishStatus(0);
    broker.Deliver();
    EXPECT_EQ(client.received, (Entries{"/a kept"}));
    EXPECT_EQ(broker.Retained("/a"), "kept");
}

TEST_F(TheFakeBroker, RefusesTopicsThatNoBrokerTakes) {
    for (const char* topic : {"", "/a/+", "/a/#"})
        EXPECT_NE(client.PublishMessage(topic, "b", false), 0) << topic;
}

TEST_F(TheFakeBroker, RefusesConnectionsWhenItIsAway) {
    broker.SetReachable(false);
    EXPECT_FALSE(client.Connect());
    EXPECT_FALSE(broker.IsConnected("client"));
}

TEST_F(TheFakeBroker, DeliversNothingAfterAStop) {
    client.Subscribe("/a", 0);
    broker.Inject("/a", "1");
    client.StopDelivery();
    broker.Deliver();
    EXPECT_EQ(client.received, Entries{});
    EXPECT_TRUE(broker.IsConnected("client"));
}

TEST_F(TheFakeBroker, SparesAReceiverThatGoesWhileAMessageIsHandedOut) {
    auto other = std::make_unique<Client>("other");
    other->Connect();
    client.Subscribe("/a", 0);
    other->Subscribe("/a", 0);
    client.then = [&] { other.reset(); };
    broker.Inject("/a", "1");
    broker.Deliver();
    EXPECT_EQ(client.received, (Entries{"/a 1"}));
}

TEST_F(TheFakeBroker, DeliversWhatArisesMeanwhile) {
    client.Subscribe("/#", 0);
    client.then = [&] {
        client.then = nullptr;
        client.PublishMessage("/b", "2", false);
    };
    broker.Inject("/a", "1");
    broker.Deliver();
    EXPECT_EQ(client.received, (Entries{"/a 1", "/b 2"}));
}

TEST_F(TheFakeBroker, HandsOutWhatItsLatencyHasHeldBack) {
    auto now = std::chrono::milliseconds(0);
    broker.SetLatency(std::chrono::milliseconds(200), [&] { return now; });
    client.Subscribe("/a", 0);
    broker.Inject("/a", "1");
    EXPECT_EQ(broker.NextDue(), std::chrono::milliseconds(200));
    now = std::chrono::milliseconds(199);
    broker.Deliver();
    EXPECT_EQ(client.received, Entries{});
    now = std::chrono::milliseconds(200);
    broker.Deliver();
    EXPECT_EQ(client.received, (Entries{"/a 1"}));
    EXPECT_EQ(broker.NextDue(), std::nullopt);
    broker.SetLatency({}, nullptr);
}

TEST_F(TheFakeBroker, ForgetsEverythingWhenItEndsAndIsToldAgainWhenConnectionsAreRestored) {
    client.Subscribe("/a", 0);
    client.PublishRetainedMessage("/state", "1", false);
    broker.Inject("/other", "x", true);
    broker.Stop();
    EXPECT_FALSE(broker.IsConnected("client"));
    EXPECT_FALSE(broker.HasRetained("/will")) << "nobody is there to speak it";
    EXPECT_FALSE(broker.HasRetained("/state"));
    broker.Start();
    EXPECT_FALSE(broker.IsConnected("client"));
    broker.RestoreConnections();
    EXPECT_EQ(client.connects, 1);
    EXPECT_EQ(broker.Retained("/state"), "1");
    EXPECT_FALSE(broker.HasRetained("/other"));
}

TEST_F(TheFakeBroker, TellsWhatItHasTakenAndFromWhom) {
    Entries taken;
    broker.SetTakenHook([&](const FakeBroker::Taken& message) {
        taken.push_back(message.client + " " + message.topic + " " + message.payload + (message.retained ? " r" : ""));
    });
    int waiting = 0;
    broker.SetWaitingHook([&] { ++waiting; });
    client.PublishMessage("/a", "1", false);
    broker.Inject("/b", "2", true);
    client.Disconnect();
    client.PublishMessage("/a", "3", false);
    EXPECT_EQ(taken, (Entries{"client /a 1", " /b 2 r"}));
    EXPECT_EQ(waiting, 2);
    broker.SetTakenHook(nullptr);
    broker.SetWaitingHook(nullptr);
}

TEST_F(TheFakeBroker, KeepsAStopWaitingForTheCallbackOfAnotherThread) {
    client.Subscribe("/a", 0);
    std::atomic<bool> inside{false};
    std::atomic<bool> leaving{false};
    client.then = [&] {
        inside = true;
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        leaving = true;
    };
    broker.Inject("/a", "1");
    std::thread delivery([&] { broker.Deliver(); });
    while (!inside)
        std::this_thread::yield();
    client.StopDelivery();
    EXPECT_TRUE(leaving);
    delivery.join();
}

TEST_F(TheFakeBroker, LetsACallbackStopItsOwnDelivery) {
    client.Subscribe("/a", 0);
    client.then = [&] { client.StopDelivery(); };
    broker.Inject("/a", "1");
    broker.Inject("/a", "2");
    broker.Deliver();
    EXPECT_EQ(client.received, (Entries{"/a 1"}));
}

TEST(TheFakeConnectionManager, ObeysOrNot) {
    auto& commands = CommonUtils::Networking::ConnmanCommands::GetInstance();
    FakeConnman::Get().Reset();
    EXPECT_TRUE(commands.SetTopPriorityInterface("wwan0"));
    EXPECT_EQ(commands.GetTopPriorityInterface(), "wwan0");
    EXPECT_FALSE(commands.SetTopPriorityInterface("none"));
    FakeConnman::Get().SetObedient(false);
    EXPECT_TRUE(commands.SetTopPriorityInterface("eth0"));
    EXPECT_EQ(commands.GetTopPriorityInterface(), "wwan0");
    FakeConnman::Get().SetOrder({});
    EXPECT_EQ(commands.GetTopPriorityInterface(), "");
}

TEST(AFakeLogger, WritesWhatIsNotOff) {
    FakeGateway::Reset();
    CommonUtils::Logger logger("Name", 1);
    logger.Trace("tag") << "off by the logger's level";
    logger.Debug("tag") << true << 2 << "text";
    FakeLogger::SetLowestLevel(3);
    logger.Info() << "off by configuration";
    logger.Warning() << "on";
    EXPECT_EQ(Journal::Take(), (Entries{Entry::Debug("Name", "tag", "12text"), Entry::Warning("Name", "on")}));
    FakeGateway::Reset();
}

TEST(TheFakeTextHelpers, ReadTruthAsTheContractSays) {
    using CommonUtils::StringHelpers;
    for (const char* word : {"true", "TRUE", " 1\n", "yes", "On"})
        EXPECT_TRUE(StringHelpers::ToBoolean(word)) << word;
    for (const char* word : {"", " ", "false", "0", "truely", "t rue"})
        EXPECT_FALSE(StringHelpers::ToBoolean(word)) << word;
}

TEST(TheFakeTextHelpers, SplitWithoutEmptyPieces) {
    using CommonUtils::StringHelpers;
    EXPECT_EQ(StringHelpers::Tokenize("//a/b//c/", '/'), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(StringHelpers::Tokenize("", '/'), std::vector<std::string>{});
}

} // namespace
