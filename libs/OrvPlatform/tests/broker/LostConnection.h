// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "BrokerFixture.h"

#include <atomic>
#include <future>
#include <utility>
#include <vector>

namespace OrvTest {

using Session = FakeBrokerServer::Session;

/// A client of a broker that plays one behaviour after the other, the last one from then on. The first connection is
/// served until Drop().
class ALostConnection : public BrokerTest {
protected:
    explicit ALostConnection(std::vector<FakeBrokerServer::Behaviour> others = {FakeBrokerServer::Accept})
        : BrokerTest(0), behaviours(std::move(others)) {
        behaviours.insert(behaviours.begin(), FakeBrokerServer::Accept);
        place = "127.0.0.1:" + std::to_string(server.Port());
        client.onConnect = [this] {
            if (client.Connects() == heldConnect)
                released.wait();
        };
        EXPECT_TRUE(client.Connect());
    }

    void Drop() { EXPECT_EQ(client.PublishMessage("hang up", "", false), 0); }

    /// @return how long it takes until this many sessions have begun in all
    std::chrono::milliseconds DropAndAwait(std::size_t count) {
        return TimeOf([&] {
            Drop();
            EXPECT_TRUE(WaitUntil([&] { return sessions >= count; }));
        });
    }

    bool IsConnectedFor(int connects) {
        return WaitUntil([&] { return client.Connects() == connects; }, 40s);
    }

    std::size_t LoggedAt(const std::string& level, const std::string& text) {
        return Logged("log " + level + " QueueOwner \"client: " + text);
    }

    static void AcceptAndClose(Session& session) {
        session.Read();
        session.Send(EncodeConnack(0));
    }

    static void AcceptAndSpeakGarbage(Session& session) {
        session.Read();
        session.Send(EncodeConnack(0) + std::string("\xf0\x00", 2));
        session.Freeze();
    }

    /// A client reads the settings when it is made.
    static std::string IdOnceConfigured(std::uint16_t port) {
        BrokerSettings().port = port;
        return "client";
    }

    std::atomic<int> heldConnect{0}; // the number of the OnConnect that waits for `release`
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<std::size_t> sessions{0};
    std::vector<FakeBrokerServer::Behaviour> behaviours;
    FakeBrokerServer server{
        [this](Session& session) { behaviours[std::min(sessions++, behaviours.size() - 1)](session); }};
    std::string place;
    TestClient client{IdOnceConfigured(server.Port())};
};

} // namespace OrvTest
