// SPDX-License-Identifier: Apache-2.0
#include "PathProver.h"

#include "AGatewayWithACloud.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

/// The error that waits at a socket is a number of this architecture; an emulation of the user's side may pass on the
/// one of the machine below.
bool WaitingErrorsAreOurs() {
    const int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in closed{};
    closed.sin_family = AF_INET;
    closed.sin_port = htons(9);
    closed.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int error = 0;
    socklen_t size = sizeof(error);
    const bool sent = connect(udp, reinterpret_cast<const sockaddr*>(&closed), sizeof(closed)) == 0 &&
                      send(udp, "", 1, 0) == 1 && getsockopt(udp, SOL_SOCKET, SO_ERROR, &error, &size) == 0;
    close(udp);
    return sent && error == ECONNREFUSED;
}

class AProof : public AGatewayWithACloud {
protected:
    void TearDown() override {
        if (PrivateNetwork::Entered() && bus) {
            EXPECT_TRUE(Eventually([] { return PathProver::Helpers() == 0; }));
        }
        AGatewayWithACloud::TearDown();
    }
    /// Tries the interface and returns what came of it.
    PathProver::Result Of(const std::string& interface, std::chrono::seconds hold, std::function<void()> meanwhile = {},
                          const std::string& host = "10.11.0.1") {
        EventLoop loop;
        PathProver prover(loop);
        std::optional<PathProver::Result> result;
        Timer limit(loop, [&] { loop.Quit(); });
        Timer moment(loop, [&] { meanwhile(); });
        limit.Once(20s);
        if (meanwhile)
            moment.Once(1s);
        CloudSettings settings;
        settings.host = host;
        settings.caFile = trusted;
        prover.Begin(settings, interface, hold, [&](const PathProver::Result& ended) {
            result = ended;
            loop.Quit();
        });
        loop.Run();
        return result.value_or(PathProver::Result{false, "no result", false});
    }
    /// Until the cloud's broker listens.
    bool CloudIsThere() {
        return Eventually([] { return std::system("bash -c 'exec 3<>/dev/tcp/10.11.0.1/8883' 2>/dev/null") == 0; });
    }
};

TEST_F(AProof, IsGoodOverAnInterfaceThatReachesTheCloud) {
    ASSERT_TRUE(CloudIsThere());
    const PathProver::Result result = Of("eth0", 0s);
    EXPECT_TRUE(result.good) << result.failure;
}

TEST_F(AProof, IsGoodWhenTheConnectionLivesForTheWholeTime) {
    ASSERT_TRUE(CloudIsThere());
    const auto begin = std::chrono::steady_clock::now();
    const PathProver::Result result = Of("eth0", 4s);
    EXPECT_TRUE(result.good) << result.failure;
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 4s);
}

TEST_F(AProof, FailsOverAnInterfaceThatDoesNotReachTheCloudAlthoughTheOtherOneDoes) {
    ASSERT_TRUE(CloudIsThere());
    ASSERT_TRUE(Ip("addr add 10.12.0.2/24 dev wwan0"));
    const PathProver::Result result = Of("wwan0", 0s);
    EXPECT_FALSE(result.good);
    EXPECT_FALSE(result.connected);
}

TEST_F(AProof, TellsThatANameIsNotFound) {
    ASSERT_TRUE(CloudIsThere());
    const PathProver::Result result = Of("eth0", 0s, {}, "no-such-name.invalid");
    EXPECT_FALSE(result.good);
    EXPECT_EQ(result.cause, PathProver::Cause::NAME);
    EXPECT_EQ(result.failure, "its name is not found");
}

TEST_F(AProof, TellsThatThereIsNoRouteForABoundConnection) {
    ASSERT_TRUE(CloudIsThere());
    ASSERT_TRUE(Ip("addr add 10.12.0.2/24 dev wwan0") && Ip("rule add oif wwan0 unreachable"));
    const PathProver::Result result = Of("wwan0", 0s);
    EXPECT_FALSE(result.good);
    if (!WaitingErrorsAreOurs())
        GTEST_SKIP() << "the user emulation hands out the error number of the machine below: " << result.failure;
    EXPECT_EQ(result.cause, PathProver::Cause::ROUTE) << result.failure;
}

TEST_F(AProof, FailsOverAnInterfaceThatDoesNotExist) {
    ASSERT_TRUE(CloudIsThere());
    EXPECT_FALSE(Of("wwan9", 0s).good);
}

TEST_F(AProof, FailsWhenThePathFallsSilent) {
    ASSERT_TRUE(CloudIsThere());
    const PathProver::Result result = Of("eth0", 15s, [] { SilencePath(); });
    EXPECT_FALSE(result.good);
    EXPECT_TRUE(result.connected);
    HealPath();
}

TEST_F(AProof, FailsWhenTheBrokerEndsTheConnection) {
    ASSERT_TRUE(CloudIsThere());
    const PathProver::Result result = Of("eth0", 15s, [this] { cloud.reset(); });
    EXPECT_FALSE(result.good);
}

TEST_F(AProof, FailsWithAStranger) {
    ASSERT_TRUE(CloudIsThere());
    ASSERT_TRUE(TrustsAStranger());
    const PathProver::Result result = Of("eth0", 0s);
    EXPECT_FALSE(result.good);
    EXPECT_FALSE(result.failure.empty());
}

TEST_F(AProof, IsForgottenWhenItIsNotWantedAnyMore) {
    ASSERT_TRUE(CloudIsThere());
    bool called = false;
    // How many helpers there were when the last one to hold the callback let go of it; that may be we.
    const auto left = std::make_shared<std::atomic<int>>(-1);
    const auto self = std::this_thread::get_id();
    const auto look = [left, self](void*) { *left = std::this_thread::get_id() == self ? 1 : PathProver::Helpers(); };
    {
        EventLoop loop;
        PathProver prover(loop);
        CloudSettings settings;
        settings.host = "10.11.0.1";
        settings.caFile = trusted;
        prover.Begin(settings, "eth0", 60s,
                     [&, end = std::shared_ptr<void>(left.get(), look)](const PathProver::Result&) { called = true; });
    }
    EXPECT_TRUE(Eventually([&] { return *left != -1; }));
    EXPECT_EQ(*left, 1);
    EXPECT_TRUE(Eventually([] { return PathProver::Helpers() == 0; }));
    EXPECT_FALSE(called);
}

} // namespace
} // namespace GatewayApp
