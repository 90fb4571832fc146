// SPDX-License-Identifier: Apache-2.0
// Callbacks that do not return: what the client still does meanwhile, and what it says about the connection that this
// costs.
#include "BrokerFixture.h"

#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <thread>

namespace OrvTest {

using QUILMQTT::QueueOwner;

class ACallbackThatDoesNotReturn : public RealBrokerTest {
protected:
    explicit ACallbackThatDoesNotReturn(std::chrono::seconds keepAlive = 5s) {
        BrokerSettings().keepAlive = keepAlive;
        client = std::make_unique<TestClient>();
        client->onMessage = [this](const std::string& topic, const std::string&) {
            if (topic == "go")
                released.wait();
        };
        EXPECT_TRUE(client->Connect() && client->Subscribe("go", 1));
        EXPECT_EQ(client->PublishMessage("go", "", false), 0);
        EXPECT_TRUE(WaitUntil([this] { return client->ReceivedCount() == 1; }));
    }

    ~ACallbackThatDoesNotReturn() override {
        Release();
        client.reset();
    }

    void Release() {
        if (!isReleased)
            release.set_value();
        isReleased = true;
    }

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    bool isReleased = false;
    std::unique_ptr<TestClient> client;
};

TEST_F(ACallbackThatDoesNotReturn, DoesNotKeepAnotherThreadFromConnecting) {
    EXPECT_LT(TimeOf([&] { EXPECT_TRUE(client->Connect("will", "gone", false)); }), SLACK);
    EXPECT_EQ(client->PublishMessage("answer", "x", true), 0);
    EXPECT_EQ(Logged("cannot connect"), 0U);
    EXPECT_EQ(client->Connects(), 1) << "one callback at a time";
    Release();
    EXPECT_TRUE(WaitUntil([&] { return client->Connects() == 2; }));
    EXPECT_TRUE(IsUpToDate(*client));
}

TEST_F(ACallbackThatDoesNotReturn, DoesNotChangeWhyAConnectFails) {
    FakeBrokerServer refusing(FakeBrokerServer::Refuse(5));
    BrokerSettings().port = refusing.Port();
    TestClient other("other");
    broker.Kill();
    EXPECT_LT(TimeOf([&] { EXPECT_FALSE(client->Connect()); }), SLACK);
    EXPECT_EQ(Logged(": Connection refused; is the broker running?"), 1U);
    EXPECT_EQ(Logged("no answer within"), 0U);
}

TEST_F(ACallbackThatDoesNotReturn, DoesNotKeepAConnectFromBeingGivenUp) {
    broker.Freeze();
    auto connecting = std::async(std::launch::async, [&] { return client->Connect(); });
    ASSERT_TRUE(WaitUntil([&] { return client->PublishMessage("probe", "", false) == QueueOwner::NOT_CONNECTED; }));
    EXPECT_LT(TimeOf([&] { client->Disconnect(); }), 1s + SLACK);
    EXPECT_FALSE(connecting.get());
    broker.Thaw();
}

TEST_F(ACallbackThatDoesNotReturn, IsNamedWhenTheBrokerHasEndedTheConnectionMeanwhile) {
    EXPECT_TRUE(WaitUntil([&] { return broker.Log().find("has exceeded timeout") != std::string::npos; }, 30s));
    Release();
    EXPECT_TRUE(WaitUntil([&] { return client->Connects() == 2; }));
    EXPECT_EQ(Logged(": the broker closed the connection; this client had been silent for "), 1U);
    EXPECT_EQ(Logged(" s, held up by the application's callback for go, which took "), 1U);
    EXPECT_EQ(Logged(" s; reconnecting\""), 1U);
}

TEST_F(ACallbackThatDoesNotReturn, IsNamedWhileItLastsToo) {
    EXPECT_TRUE(WaitUntil([&] { return broker.Log().find("has exceeded timeout") != std::string::npos; }, 30s));
    EXPECT_TRUE(WaitUntil([&] { return client->PublishMessage("probe", "", false) != 0; }));
    Release();
    EXPECT_TRUE(WaitUntil([&] {
        return Logged(", held up by the application's callback for go, which has not returned yet; reconnecting\"") ==
               1;
    }));
}

TEST(ClientsWhoseCallbacksAreSlow, AreNotTakenForTwoWithOneId) {
    // What a broker does that has heard nothing for one and a half times the keep-alive, again and again.
    FakeBrokerServer server([](FakeBrokerServer::Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
        WaitUntil([] { return false; }, 1600ms);
    });
    OrvPlatformFake::Journal::Clear();
    BrokerSettings() = {};
    BrokerSettings().port = server.Port();
    BrokerSettings().keepAlive = 5s;
    TestClient client;
    client.onConnect = [&] { WaitUntil([&] { return client.Connects() > 3; }, 7600ms); };
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(WaitUntil([&] { return client.Connects() == 4; }, 60s));
    for (const std::string& line : OrvPlatformFake::Journal::Take())
        EXPECT_EQ(line.find("another client uses the same id"), std::string::npos) << line;
}

} // namespace OrvTest
