// SPDX-License-Identifier: Apache-2.0
#include "signals/Signals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

namespace OrvSignals {
namespace {

class BlockedSignals : public testing::Test {
protected:
    BlockedSignals() { Block({SIGHUP, SIGTERM, SIGUSR2}); }

    bool OneWaits() const {
        pollfd asked{signals.Descriptor(), POLLIN, 0};
        return poll(&asked, 1, 0) == 1;
    }

    Signals signals{SIGHUP, SIGTERM};
};

TEST_F(BlockedSignals, WaitUntilTheyAreTaken) {
    EXPECT_FALSE(OneWaits());
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(OneWaits());
    EXPECT_EQ(signals.Take(), SIGTERM);
    EXPECT_FALSE(OneWaits());
}

TEST_F(BlockedSignals, AreNoneWithoutWaiting) {
    EXPECT_EQ(signals.Take(), 0);
}

TEST_F(BlockedSignals, AreTakenOneAtATime) {
    kill(getpid(), SIGTERM);
    kill(getpid(), SIGHUP);
    EXPECT_EQ(signals.Take() + signals.Take(), SIGTERM + SIGHUP);
    EXPECT_EQ(signals.Take(), 0);
}

TEST_F(BlockedSignals, AreThoseThatWereNamedOnly) {
    kill(getpid(), SIGUSR2);
    EXPECT_EQ(signals.Take(), 0);
}

TEST_F(BlockedSignals, ComeFromADescriptorThatNoOtherProgramInherits) {
    EXPECT_NE(fcntl(signals.Descriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(BlockedSignals, CloseTheirDescriptor) {
    int descriptor = -1;
    {
        const Signals others{SIGUSR1};
        descriptor = others.Descriptor();
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
#define ORV_SANITIZER_TAKES_DESCRIPTORS // to look whether it may read an object's class, and calls it invalid without
#endif
#endif

TEST(SignalsWithoutADescriptorToSpare, AreRefused) {
#ifdef ORV_SANITIZER_TAKES_DESCRIPTORS
    GTEST_SKIP() << "the sanitizer needs descriptors itself";
#endif
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_THROW(Signals{SIGUSR1}, std::system_error);
    setrlimit(RLIMIT_NOFILE, &before);
}

} // namespace
} // namespace OrvSignals
