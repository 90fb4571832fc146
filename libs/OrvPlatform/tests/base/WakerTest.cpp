// SPDX-License-Identifier: Apache-2.0
#include "base/Waker.h"

#include "NoMoreDescriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace OrvPlatform {
namespace {

bool EndsAPoll(const Waker& waker) {
    pollfd wait{waker.Descriptor(), POLLIN, 0};
    return poll(&wait, 1, 0) == 1 && wait.revents == POLLIN;
}

TEST(AWaker, EndsEachPollUntilItIsCleared) {
    Waker waker;
    ASSERT_TRUE(waker.Open());
    EXPECT_FALSE(EndsAPoll(waker));
    waker.Wake();
    waker.Wake();
    EXPECT_TRUE(EndsAPoll(waker));
    EXPECT_TRUE(EndsAPoll(waker));
    waker.Clear();
    EXPECT_FALSE(EndsAPoll(waker));
    waker.Clear();
    waker.Wake();
    EXPECT_TRUE(EndsAPoll(waker));
}

TEST(AWaker, HasNoDescriptorUntilItIsAskedToAndThenKeepsIt) {
    Waker waker;
    waker.Wake();
    waker.Clear();
    EXPECT_FALSE(waker.IsOpen());
    EXPECT_EQ(waker.Descriptor(), -1);
    ASSERT_TRUE(waker.Open());
    const int descriptor = waker.Descriptor();
    EXPECT_TRUE(waker.Open());
    EXPECT_EQ(waker.Descriptor(), descriptor);
    EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(AWaker, SaysThatThereIsNoDescriptorAndAsksAgain) {
    Waker waker;
    {
        const OrvTest::NoMoreDescriptors exhausted;
        EXPECT_FALSE(waker.Open());
    }
    EXPECT_TRUE(waker.Open());
}

} // namespace
} // namespace OrvPlatform
