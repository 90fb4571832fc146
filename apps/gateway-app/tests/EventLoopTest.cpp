// SPDX-License-Identifier: Apache-2.0
#include "EventLoop.h"
#include "Mailbox.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <thread>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

class ALoop : public testing::Test {
protected:
    EventLoop loop;
};

TEST_F(ALoop, RunsATimerOnce) {
    int calls = 0;
    Timer once(loop, [&] { ++calls; });
    Timer end(loop, [&] { loop.Quit(); });
    once.Once(0ms);
    end.Once(20ms);
    loop.Run();
    EXPECT_EQ(calls, 1);
}

TEST_F(ALoop, RunsATimerAgainAndAgainUntilItIsStopped) {
    int calls = 0;
    Timer periodic(loop, [&] {
        if (++calls == 3)
            loop.Quit();
    });
    periodic.Every(1ms);
    loop.Run();
    EXPECT_EQ(calls, 3);
    periodic.Stop();
    Timer end(loop, [&] { loop.Quit(); });
    end.Once(20ms);
    loop.Run();
    EXPECT_EQ(calls, 3);
}

TEST_F(ALoop, RunsWhatAnotherThreadPosts) {
    Mailbox mailbox;
    loop.Watch(mailbox.ReadyDescriptor(), EPOLLIN, [&](std::uint32_t) { mailbox.DoAll(); });
    std::thread::id ran;
    std::thread other([&] {
        mailbox.Post([&] {
            ran = std::this_thread::get_id();
            loop.Quit();
        });
    });
    loop.Run();
    other.join();
    EXPECT_EQ(ran, std::this_thread::get_id());
    loop.Forget(mailbox.ReadyDescriptor());
}

TEST_F(ALoop, DoesNotCallTheOwnerOfADescriptorThatWasForgottenInTheSameRound) {
    int pipes[2][2];
    ASSERT_TRUE(pipe(pipes[0]) == 0 && pipe(pipes[1]) == 0);
    int calls = 0;
    // Whichever comes first forgets the other one.
    for (const int mine : {0, 1}) {
        loop.Watch(pipes[mine][0], EPOLLIN, [&, mine](std::uint32_t) {
            ++calls;
            loop.Forget(pipes[1 - mine][0]);
            loop.Quit();
        });
        ASSERT_EQ(write(pipes[mine][1], "x", 1), 1);
    }
    loop.Run();
    EXPECT_EQ(calls, 1);
    for (const auto& ends : pipes) {
        close(ends[0]);
        close(ends[1]);
    }
}

} // namespace
} // namespace GatewayApp
