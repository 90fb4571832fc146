// SPDX-License-Identifier: Apache-2.0
#include "base/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace OrvPlatform {
namespace {

int Opened() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int number) {
    return ::fcntl(number, F_GETFD) >= 0;
}

TEST(AFileDescriptor, IsClosedWithItsOwner) {
    const int number = Opened();
    {
        const FileDescriptor owner(number);
        EXPECT_TRUE(owner.IsOpen());
        EXPECT_EQ(owner.Number(), number);
        EXPECT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
}

TEST(AFileDescriptor, GoesOverToAnotherOwner) {
    const int number = Opened();
    const int replaced = Opened();
    FileDescriptor first(number);
    FileDescriptor second(replaced);
    second = std::move(first);
    EXPECT_FALSE(IsOpen(replaced));
    FileDescriptor third(std::move(second));
    EXPECT_EQ(third.Number(), number);
    EXPECT_TRUE(IsOpen(number));
    third.Reset();
    EXPECT_FALSE(IsOpen(number));
}

TEST(AFileDescriptor, LeavesErrnoAloneWhenItCloses) {
    FileDescriptor owner(Opened());
    errno = ENOENT;
    owner.Reset(-1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(owner.IsOpen());
}

} // namespace
} // namespace OrvPlatform
