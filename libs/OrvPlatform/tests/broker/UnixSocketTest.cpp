// SPDX-License-Identifier: Apache-2.0
// A broker on a unix socket.
#include "BrokerFixture.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace OrvTest {

namespace {

/// Somebody who holds a place and takes nobody in: the kernel has no room for another connection.
class FullSocket {
public:
    explicit FullSocket(const std::string& path) {
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        bind(listener, General(), sizeof address);
        listen(listener, 0);
        connect(waiting, General(), sizeof address);
    }
    ~FullSocket() {
        close(waiting);
        close(listener);
        unlink(address.sun_path);
    }
    FullSocket(const FullSocket&) = delete;
    FullSocket& operator=(const FullSocket&) = delete;

private:
    const sockaddr* General() const { return reinterpret_cast<const sockaddr*>(&address); }

    sockaddr_un address{};
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int waiting = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
};

struct BrokerOnASocketHolder {
    MosquittoBroker broker{"allow_anonymous true\nset_tcp_nodelay true\nlistener 0 @FOLDER@/mqtt.sock\n"
                           "listener @PORT@ 127.0.0.1\n"};
};

} // namespace

class ABrokerOnAUnixSocket : private BrokerOnASocketHolder, public BrokerTest {
protected:
    // Nobody listens at the port: whoever goes there has not taken the socket.
    ABrokerOnAUnixSocket() : BrokerTest(1) { BrokerSettings().socket = path; }

    using BrokerOnASocketHolder::broker;

    std::string Retained(const std::string& topic) const {
        const auto state = RetainedState(broker.Port(), topic);
        return state.empty() ? "(nothing)" : state.begin()->second;
    }

    const std::string path = broker.Folder() + "/mqtt.sock";
};

TEST_F(ABrokerOnAUnixSocket, TakesAndGivesMessages) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("a", 1));
    EXPECT_EQ(client.PublishMessage("a", "x", true), 0);
    EXPECT_TRUE(WaitUntil([&] { return client.HasReceived("a", "x"); }));
    EXPECT_EQ(Logged("client: connected to " + path), 1U);
    EXPECT_TRUE(client.Disconnect());
    EXPECT_EQ(Logged("client: disconnecting from " + path), 1U);
}

TEST_F(ABrokerOnAUnixSocket, SpeaksTheLastWill) {
    {
        TestClient client;
        ASSERT_TRUE(client.Connect("available", "false", true));
    }
    EXPECT_TRUE(WaitUntil([&] { return Retained("available") == "false"; }));
}

TEST_F(ABrokerOnAUnixSocket, IsFoundAgainAfterItsRestartWithEverythingRestored) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Subscribe("a", 1));
    ASSERT_EQ(client.PublishRetainedMessage("led", "On", true), 0);
    ASSERT_TRUE(WaitUntil([&] { return Retained("led") == "On"; }));
    broker.Restart();
    ASSERT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
    EXPECT_TRUE(WaitUntil([&] { return Retained("led") == "On"; }));
    EXPECT_EQ(client.PublishMessage("a", "x", true), 0);
    EXPECT_TRUE(WaitUntil([&] { return client.HasReceived("a", "x"); }));
    EXPECT_EQ(Logged("lost the connection to " + path + ": the broker closed the connection; reconnecting"), 1U);
    EXPECT_EQ(Logged("connected again to " + path), 1U);
}

TEST_F(ABrokerOnAUnixSocket, IsFoundAgainWhenItsSocketWasAwayForAWhile) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    broker.Stop();
    ASSERT_TRUE(WaitUntil([&] { return Logged("cannot reconnect to " + path + ": No such file or directory") >= 1; }));
    broker.Start();
    EXPECT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
}

TEST_F(ABrokerOnAUnixSocket, IsMissedAtOnceWhenItIsNotThere) {
    TestClient client;
    broker.Stop(); // takes the socket away
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(Logged("cannot connect to " + path +
                     ": No such file or directory; is the broker running, and does it listen there?"),
              1U);
    broker.Start();
    broker.Kill(); // leaves it behind
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(Logged("cannot connect to " + path + ": Connection refused; is the broker running?"), 1U);
}

TEST_F(ABrokerOnAUnixSocket, HoldsNobodyUpWhenItHangs) {
    TestClient client;
    broker.Freeze();
    EXPECT_LT(TimeOf([&] { EXPECT_FALSE(client.Connect()); }), 3s + SLACK);
    EXPECT_EQ(Logged("cannot connect to " + path + ": no answer within 3 s"), 1U);
    broker.Thaw();
}

TEST_F(ABrokerOnAUnixSocket, HoldsNobodyUpWhenItsBacklogIsFull) {
    const FullSocket full(broker.Folder() + "/full.sock");
    BrokerSettings().socket = broker.Folder() + "/full.sock";
    TestClient client;
    EXPECT_LT(TimeOf([&] { EXPECT_FALSE(client.Connect()); }), 3s + SLACK);
    EXPECT_EQ(Logged("full.sock: Resource temporarily unavailable; the broker takes no connections, does it hang?"),
              1U);
}

} // namespace OrvTest
