// SPDX-License-Identifier: Apache-2.0
// What is allowed inside a callback, and what one that takes its time holds up.
#include "CallbackFixture.h"
#include "ScriptedPoll.h"

#include <atomic>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace OrvTest {

TEST_F(ACallback, MayPublishAndSubscribe) {
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("answer", 1));
    RunInCallback([](TestClient& client) {
        EXPECT_TRUE(client.Subscribe("other", 1));
        EXPECT_EQ(client.PublishMessage("answer", "x", true), 0);
    });
    EXPECT_TRUE(witness.NextMessage());
}

TEST_F(ACallback, MayDisconnect) {
    RunInCallback([](TestClient& client) {
        EXPECT_TRUE(client.Disconnect());
        EXPECT_FALSE(client.Disconnect());
        EXPECT_NE(client.PublishMessage("answer", "x", true), 0);
    });
}

TEST_F(ACallback, MayConnectAnew) {
    RunInCallback([](TestClient& client) {
        EXPECT_TRUE(client.Connect());
        EXPECT_EQ(client.PublishMessage("answer", "x", true), 0);
    });
}

TEST_F(ACallback, IsToldOfTheConnectionThatItMade) {
    TestClient client;
    std::atomic<bool> connected{false};
    client.onMessage = [&](const std::string&, const std::string&) { connected = client.Connect(); };
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("go", 1));
    ASSERT_EQ(client.PublishMessage("go", "", true), 0);
    EXPECT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
    EXPECT_TRUE(connected);
}

TEST_F(ACallback, MayDisconnectAndConnectAgain) {
    RunInCallback([](TestClient& client) {
        EXPECT_TRUE(client.Disconnect());
        EXPECT_TRUE(client.Connect("will", "gone", false));
        EXPECT_TRUE(client.Subscribe("other", 1));
    });
}

TEST_F(ACallback, MayDisconnectWhileAnotherThreadConnectsAndTheLogIsSlow) {
    std::promise<void> release;
    std::atomic<bool> inLog{false};
    OrvPlatformFake::Journal::Observe([&, released = release.get_future().share()](const std::string& entry) {
        if (entry.find("was refused: not connected") != std::string::npos) {
            inLog = true;
            released.wait();
        }
    });
    TestClient client;
    client.onMessage = [&](const std::string& topic, const std::string&) {
        if (topic == "go") {
            client.Disconnect();
            client.PublishMessage("late", "x", false);
        }
    };
    ASSERT_TRUE(client.Connect() && client.Subscribe("go", 1));
    ASSERT_EQ(client.PublishMessage("go", "", true), 0);
    ASSERT_TRUE(WaitUntil([&] { return inLog.load(); }));
    EXPECT_TRUE(client.Connect());
    release.set_value();
    EXPECT_TRUE(IsUpToDate(client)) << "nobody serves the new connection";
    OrvPlatformFake::Journal::Observe({});
}

TEST_F(ACallback, MayStopDelivery) {
    BrokerSettings().maxOutstandingBytes = 1024;
    std::atomic<bool> stopped{false};
    TestClient client;
    client.onMessage = [&](const std::string& topic, const std::string&) {
        if (topic != "go")
            return;
        client.StopDelivery();
        EXPECT_TRUE(client.Subscribe("more", 1));
        EXPECT_EQ(client.PublishMessage("more", "x", true), 0);
        stopped = true;
    };
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("go", 1));
    ASSERT_EQ(client.PublishMessage("go", "", true), 0);
    ASSERT_TRUE(WaitUntil([&] { return stopped.load(); }));
    // There is room for one: the acknowledgement of the one before has been read then, and what came before that.
    for (int number = 0; number < 3; ++number)
        EXPECT_TRUE(WaitUntil([&] { return client.PublishMessage("fence", std::string(800, 'x'), true) == 0; }));
    EXPECT_TRUE(client.Disconnect());
    EXPECT_FALSE(client.HasReceived("more", "x"));
}

TEST_F(ACallback, MayDeleteTheClient) {
    const auto before = ProcessFigures::Now();
    RawClient witness(broker.Port());
    ASSERT_TRUE(witness.Subscribe("will"));
    std::atomic<bool> deleted{false};
    auto client = std::make_unique<TestClient>();
    client->onMessage = [&](const std::string& topic, const std::string& message) {
        std::atomic<bool>& reached = deleted;
        client.reset();
        reached = topic == "go" && message == "now"; // unlike what was captured, these outlive the client
    };
    ASSERT_TRUE(client->Connect("will", "gone", false));
    ASSERT_TRUE(client->Subscribe("go", 1));
    for (int number = 0; number < 5; ++number) {
        RawClient other(broker.Port());
        ASSERT_TRUE(other.Publish({"go", "now", 1, false, false, 0}));
    }
    EXPECT_TRUE(WaitUntil([&] { return deleted.load(); }));
    EXPECT_TRUE(witness.NextMessage()) << "the last will was not spoken";
    witness.DropConnection();
    EXPECT_TRUE(WaitUntil([&] { return ProcessFigures::Now().threads <= before.threads; }));
    EXPECT_TRUE(WaitUntil([&] { return ProcessFigures::Now().descriptors <= before.descriptors; }));
}

TEST_F(ACallback, MayBeLeftByAnExceptionAndTheNextOneComes) {
    TestClient client;
    client.onMessage = [](const std::string&, const std::string& message) {
        if (message == "standard")
            throw std::runtime_error("broken application");
        if (message == "other")
            throw 1;
    };
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("go", 1));
    for (const char* message : {"standard", "other", "last"})
        client.PublishMessage("go", message, true);
    EXPECT_TRUE(WaitUntil([&] { return client.HasReceived("go", "last"); }));
    EXPECT_EQ(Logged("an exception left the application's callback: broken application"), 1U);
    EXPECT_EQ(Logged("an exception of unknown type left the application's callback"), 1U);
}

TEST_F(ACallback, ThatTakesItsTimeDoesNotDelayAnotherClient) {
    std::promise<void> release;
    const auto released = release.get_future().share();
    TestClient slow("slow");
    slow.onMessage = [released](const std::string&, const std::string&) { released.wait(); };
    TestClient quick("quick");
    ASSERT_TRUE(slow.Connect() && slow.Subscribe("go", 1));
    ASSERT_TRUE(quick.Connect() && quick.Subscribe("go", 1));
    quick.PublishMessage("go", "x", true);
    ASSERT_TRUE(WaitUntil([&] { return slow.ReceivedCount() == 1; }));
    EXPECT_TRUE(IsUpToDate(quick));
    EXPECT_EQ(slow.PublishMessage("go", "y", true), 0) << "nor its own publications";
    release.set_value();
    EXPECT_TRUE(WaitUntil([&] { return slow.HasReceived("go", "y"); }));
}

TEST_F(ACallback, ThatTakesItsTimeHoldsUpNothingThatItsClientSays) {
    FakeBrokerServer server(FakeBrokerServer::Accept);
    BrokerSettings().port = server.Port();
    std::promise<void> release;
    std::atomic<bool> inside{false};
    TestClient client;
    client.onConnect = [&, released = release.get_future().share()] {
        inside = true;
        released.wait();
    };
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(WaitUntil([&] { return inside.load(); }));
    EXPECT_TRUE(client.Subscribe("a", 1));
    EXPECT_TRUE(WaitUntil([&] { return server.Count(MqttPacket::Type::SUBSCRIBE) == 1; }));
    EXPECT_EQ(client.PublishMessage("b", "x", true), 0);
    EXPECT_TRUE(WaitUntil([&] { return server.Count(MqttPacket::Type::PUBLISH) == 1; }));
    release.set_value();
}

class ACallbackThatConnectsAnew : public BrokerTest {
protected:
    ACallbackThatConnectsAnew() : BrokerTest(0) {
        BrokerSettings().port = server.Port();
        client.emplace();
        client->onConnect = [this] {
            if (client->Connects() != 1)
                return;
            inside = true;
            released.wait();
            again = client->Connect();
            done = true;
        };
        EXPECT_TRUE(client->Connect());
        EXPECT_TRUE(WaitUntil([&] { return inside.load(); }));
    }

    static bool IsAsleep(pid_t thread) {
        std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(stat), {}};
        const auto name = text.rfind(") ");
        return name != std::string::npos && text.compare(name, 3, ") S") == 0;
    }

    std::atomic<bool> inside{false};
    std::atomic<bool> again{false};
    std::atomic<bool> done{false};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    FakeBrokerServer server{FakeBrokerServer::Accept};
    std::optional<TestClient> client;
};

TEST_F(ACallbackThatConnectsAnew, IsToldOfThatAtOnce) {
    const LongSleep untilSomethingHappens;
    release.set_value();
    EXPECT_TRUE(WaitUntil([&] { return client->Connects() == 2; }));
    EXPECT_TRUE(again);
}

TEST_F(ACallbackThatConnectsAnew, DoesNotUndoAStopThatWaitsForIt) {
    std::atomic<pid_t> waiting{0};
    std::thread stopper([&] {
        waiting = gettid();
        client->StopDelivery();
    });
    ASSERT_TRUE(WaitUntil([&] { return waiting != 0 && IsAsleep(waiting); }));
    release.set_value();
    stopper.join();
    EXPECT_TRUE(done);
    EXPECT_TRUE(client->Disconnect()); // no thread is left afterwards that could call
    EXPECT_EQ(client->Connects(), 1);
}

TEST_F(ACallbackThatConnectsAnew, IsToldWhyTheNewConnectionIsGoneAlready) {
    server.Behave([](FakeBrokerServer::Session& session) {
        session.Read();
        session.Send(EncodeConnack(0) + std::string("\xf0\x00", 2));
        session.Freeze();
    });
    release.set_value();
    ASSERT_TRUE(WaitUntil([&] { return done.load(); }));
    EXPECT_FALSE(again);
    EXPECT_EQ(Logged("cannot connect to"), 1U);
    EXPECT_EQ(Logged("no answer"), 0U);
}

} // namespace OrvTest
