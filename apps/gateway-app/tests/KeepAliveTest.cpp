// SPDX-License-Identifier: Apache-2.0
#include "KeepAlive.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

TEST(AKeepAliveOfASecond, IsTheQuickOne) {
    const KeepAlive quick;
    EXPECT_EQ(quick.Period(), 1s);
    EXPECT_EQ(quick.UserTimeout(), 3s);
    EXPECT_EQ(quick.Silence(), 2500ms);
    EXPECT_EQ(quick.AnswerTime(), 1100ms);
    EXPECT_EQ(quick.QuickPace(), 100ms);
    EXPECT_EQ(quick.UsualPace(), 250ms);
    EXPECT_EQ(quick.Interval(), 1s);
}

TEST(AKeepAliveOfHalfAMinute, GivesAModemTimeToWakeUp) {
    const KeepAlive cheap(30s);
    EXPECT_EQ(cheap.UserTimeout(), 40s);
    EXPECT_EQ(cheap.Silence(), 37500ms);
    EXPECT_GT(cheap.AnswerTime(), 31500ms);
    EXPECT_EQ(cheap.Interval(), 2s);
}

TEST(AKeepAlive, LeavesTimeForSeveralQuestions) {
    for (const auto period : {1s, 2s, 5s, 60s, 600s}) {
        const KeepAlive keepAlive(period);
        EXPECT_GE((keepAlive.Silence() - keepAlive.AnswerTime()) / keepAlive.QuickPace(), 6) << period.count();
        EXPECT_LT(keepAlive.Silence(), keepAlive.UserTimeout());
    }
}

TEST(AKeepAliveOfASecond, LeavesTimeForThreeAnswersOfAPeerThatAnswersOnceInHalfASecond) {
    const KeepAlive quick;
    EXPECT_GT(quick.Silence(), quick.AnswerTime() + 2 * 500ms);
    EXPECT_GT(quick.UserTimeout(), quick.AnswerTime() + 2 * 500ms);
}

/// After twenty silent seconds on Cellular, as they are usual there.
class ASilenceUnderAKeepAliveOfHalfAMinute : public testing::Test {
protected:
    ASilenceUnderAKeepAliveOfHalfAMinute() { EXPECT_FALSE(limit.IsPassed(KeepAlive(30s), 0s, {})); }

    bool IsPassedUnderTheQuickOne(std::chrono::milliseconds later) {
        return limit.IsPassed(KeepAlive(1s), 20s + later, changed + later);
    }

    const std::chrono::steady_clock::time_point changed{20s};
    SilenceLimit limit;
};

TEST_F(ASilenceUnderAKeepAliveOfHalfAMinute, IsNoLossWhenTheQuickOneBegins) {
    EXPECT_FALSE(IsPassedUnderTheQuickOne(0ms));
    EXPECT_FALSE(IsPassedUnderTheQuickOne(2500ms));
}

TEST_F(ASilenceUnderAKeepAliveOfHalfAMinute, IsALossWhenTheQuickOneHasAskedInVain) {
    EXPECT_FALSE(IsPassedUnderTheQuickOne(0ms));
    EXPECT_TRUE(IsPassedUnderTheQuickOne(2501ms));
}

TEST_F(ASilenceUnderAKeepAliveOfHalfAMinute, IsALossWhenItIsTooLongForThatOneToo) {
    EXPECT_FALSE(limit.IsPassed(KeepAlive(30s), 37500ms, changed + 20s));
    EXPECT_TRUE(limit.IsPassed(KeepAlive(30s), 37501ms, changed + 20s));
}

/// Both ends of a TCP connection on loopback.
class AnIdleConnection : public testing::Test {
protected:
    AnIdleConnection() {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const generic = static_cast<sockaddr*>(static_cast<void*>(&address));
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener, generic, size), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, generic, &size), 0);
        own = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(own, generic, size), 0);
        peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        close(listener);
    }
    ~AnIdleConnection() override {
        close(own);
        close(peer);
    }
    AnIdleConnection(const AnIdleConnection&) = delete;
    AnIdleConnection& operator=(const AnIdleConnection&) = delete;

    int own = -1;
    int peer = -1;
};

TEST_F(AnIdleConnection, IsLookedAtInTheMomentWhenAnAnswerIsOverdue) {
    tcp_info info{};
    socklen_t size = sizeof(info);
    if (getsockopt(own, IPPROTO_TCP, TCP_INFO, &info, &size) != 0 || size <= offsetof(tcp_info, tcpi_last_ack_recv))
        GTEST_SKIP() << "the user emulation does not hand the kernel's account of a connection through";
    const KeepAlive quick;
    SetLossDetection(own, quick);
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    std::chrono::milliseconds silent{0};
    // Longer than that the usual pace would be too late.
    while (silent <= quick.AnswerTime() - quick.UsualPace() && std::chrono::steady_clock::now() < deadline) {
        silent = SilentFor(own);
        EXPECT_LE(ProbeWhenOverdue(own, quick), std::max(quick.AnswerTime() - silent, quick.QuickPace()))
            << silent.count();
        poll(nullptr, 0, 1);
    }
    EXPECT_GT(silent, quick.AnswerTime() - quick.UsualPace());
}

} // namespace
} // namespace GatewayApp
