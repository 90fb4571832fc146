// SPDX-License-Identifier: Apache-2.0
// A child that goes on without exec has its parent's locks and none of its threads.
#include "ConnmanFixture.h"
#include "ScriptedBus.h"
#include "connman/MessageBus.h"

#include <sys/wait.h>
#include <unistd.h>

namespace OrvTest {
namespace {

using namespace std::chrono_literals;
using OrvPlatform::ConnmanLink;

/// Forks as fork() does with the handlers in place; a child that hangs is ended.
/// @return whether `inChild` held in the child
template <typename Claim>
bool HoldsInChild(ConnmanLink& link, const Claim& inChild) {
    link.BeforeFork();
    const pid_t child = fork();
    if (child == 0) {
        alarm(static_cast<unsigned>(PATIENCE.count()));
        link.AfterForkInChild();
        _exit(inChild() ? 0 : 1);
    }
    link.AfterForkInParent();
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
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
    ConnmanLink link(bus.Address(), FAST);
    const auto becomesTop = [&](const std::string& name, std::chrono::milliseconds limit) {
        return WaitUntil([&] { return link.TopPriorityInterface() == name; }, limit);
    };
    link.TopPriorityInterface();
    bus.IntroducedWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    ASSERT_TRUE(becomesTop("eth0", PATIENCE));
    const auto news = bus.StateChanged(bus.MANAGER, {"eth0", "failure"});

    std::unique_lock<std::timed_mutex> lock(OrvPlatform::LibdbusMutex());
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
    ConnmanLink hasty(bus.Address(), {300ms, 300ms, 20ms, 200ms, 2000ms, 20ms});
    std::unique_lock<std::timed_mutex> threadIsInside(OrvPlatform::LibdbusMutex());
    EXPECT_TRUE(HoldsInChild(hasty, [&] { return !hasty.SetTopPriorityInterface("wwan0"); }));
    threadIsInside.unlock();
    EXPECT_TRUE(hasty.SetTopPriorityInterface("wwan0"));
}

} // namespace
} // namespace OrvTest
