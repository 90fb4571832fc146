// SPDX-License-Identifier: Apache-2.0
// A child that goes on without exec has its parent's locks and none of its threads.
#include "ConnmanFixture.h"
#include "CountedNew.h"
#include "ScriptedBus.h"
#include "connman/MessageBus.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <future>
#include <sys/wait.h>
#include <unistd.h>

namespace OrvTest {
namespace {

using namespace std::chrono_literals;
using OrvPlatform::ConnmanClient;

/// Forks as fork() does with the handlers in place; a child that hangs is ended.
/// @param first what the child does before the handlers run
/// @return whether `inChild` held in the child
template <typename Claim>
bool HoldsInChild(
    ConnmanClient& link, const Claim& inChild, const std::function<void()>& first = [] {}) {
    link.BeforeFork();
    const pid_t child = fork();
    if (child == 0) {
        alarm(static_cast<unsigned>(PATIENCE.count()));
        first();
        link.AfterForkInChild();
        _exit(inChild() ? 0 : 1);
    }
    link.AfterForkInParent();
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

TEST_F(AConnectedGateway, AnswersInAForkedChildToo) {
#ifdef ORV_NO_THREADS_AFTER_FORK
    GTEST_SKIP() << "here a forked child may not start threads";
#endif
    ASSERT_TRUE(IsLogged("connection manager found")); // the child must not inherit the journal's locked lock
    EXPECT_TRUE(HoldsInChild(link, [this] {
        const bool works = link.SetTopPriorityInterface("wwan0") && BecomesTop("wwan0");
        link.Stop();
        return works;
    }));
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST(AForkingGateway, KeepsItsThreadOutOfLibdbus) {
    constexpr auto WHILE_IT_FORKS = 100ms;
    ScriptedBus bus;
    ConnmanClient link(bus.Address(), FAST);
    const auto becomesTop = [&](const std::string& name, std::chrono::milliseconds limit) {
        return WaitUntil([&] { return link.TopPriorityInterface() == name; }, limit);
    };
    link.TopPriorityInterface();
    bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    ASSERT_TRUE(becomesTop("eth0", PATIENCE));
    const auto news = bus.StateChanged(bus.MANAGER, {"eth0", "failure"});

    std::unique_lock<std::mutex> lock(OrvPlatform::LibdbusMutex());
    bus.Send(news);
    EXPECT_FALSE(becomesTop("", WHILE_IT_FORKS));
    lock.unlock();
    EXPECT_TRUE(becomesTop("", PATIENCE));

    lock.lock();
    link.SetTopPriorityInterface("wwan0");
    EXPECT_TRUE(bus.IsQuiet(WHILE_IT_FORKS));
    lock.unlock();
    bus.Expect("MoveBefore");
}

TEST_F(AConnectedGateway, DoesNothingInAForkedChildWhoseLibdbusIsLocked) {
    ConnmanClient hasty(bus.Address(), {300ms, 300ms, 20ms, 200ms, 2000ms, 20ms});
    std::unique_lock<std::mutex> threadIsInside(OrvPlatform::LibdbusMutex());
    EXPECT_TRUE(HoldsInChild(hasty, [&] { return !hasty.SetTopPriorityInterface("wwan0"); }));
    threadIsInside.unlock();
    EXPECT_TRUE(hasty.SetTopPriorityInterface("wwan0"));
}

TEST(AGatewayThatForksInTwoThreads, KeepsNoLockWhenOneOfThemDoesNotGetLibdbus) {
    ScriptedBus bus;
    ConnmanClient link(bus.Address(), {300ms, 300ms, 20ms, 200ms, 2000ms, 20ms});
    link.BeforeFork();
    auto other = std::async(std::launch::async, [&] {
        link.BeforeFork();
        link.AfterForkInParent();
    });
    EXPECT_EQ(other.wait_for(100ms), std::future_status::timeout);
    link.AfterForkInParent();
    other.get();
    const bool isFree = OrvPlatform::LibdbusMutex().try_lock();
    EXPECT_TRUE(isFree);
    OrvPlatform::LibdbusMutex().unlock();
}

/// Closes every descriptor, as daemons do, and gives all numbers that were used to the end of a pipe.
/// @return the other end
int PipeInThePlaceOfAllDescriptors() {
    constexpr int LAST = 60;
    int ends[2] = {-1, -1};
    close_range(3, ~0U, 0);
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0)
        return -1;
    const int other = dup2(ends[0], LAST + 1);
    for (int number = 3; number <= LAST; ++number)
        if (number != ends[1])
            dup2(ends[1], number);
    return other;
}

bool IsEmpty(int pipe) {
    char byte = 0;
    return read(pipe, &byte, 1) == -1 && errno == EAGAIN;
}

TEST_F(AConnectedGateway, HasNoDescriptorInAForkedChildThatTheChildCouldClose) {
#ifdef ORV_NO_THREADS_AFTER_FORK
    GTEST_SKIP() << "here a forked child may not start threads";
#endif
    ASSERT_TRUE(IsLogged("connection manager found"));
    EXPECT_TRUE(HoldsInChild(link, [this] {
        const int other = PipeInThePlaceOfAllDescriptors();
        const bool works = link.SetTopPriorityInterface("wwan0") && BecomesTop("wwan0");
        link.Stop();
        return works && IsEmpty(other);
    }));
}

#ifndef ORV_ALLOCATIONS_NOT_COUNTED
TEST(AForkedChild, NeedsNoMemoryForItsBeginning) {
    ConnmanClient link("unix:path=/nowhere", FAST);
    EXPECT_TRUE(HoldsInChild(
        link, [] { return !HasFailedAllocation(); }, [] { FailAllocation(1); }));
}

TEST_F(AConnectedGateway, DoesNothingInAForkedChildForWhichThereWasNoMemory) {
    ASSERT_TRUE(IsLogged("connection manager found"));
    const auto refuses = [this] { return !link.SetTopPriorityInterface("wwan0"); };
    FailAllocation(1);
    EXPECT_TRUE(HoldsInChild(link, [&] {
        const int other = PipeInThePlaceOfAllDescriptors();
        const bool idle = refuses() && !link.SetDnsConfiguration("eth0", {}) && link.TopPriorityInterface().empty();
        link.Stop();
        return idle && IsEmpty(other) && HoldsInChild(link, refuses);
    }));
    EXPECT_TRUE(HasFailedAllocation());
    EXPECT_EQ(link.TopPriorityInterface(), "eth0");
    EXPECT_TRUE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_TRUE(BecomesTop("wwan0"));
}
#endif

} // namespace
} // namespace OrvTest
