// SPDX-License-Identifier: Apache-2.0
#include "InstanceLock.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

int lockError = 0;
int truncateError = 0;

} // namespace

// In the place of the C library's: a kernel that has no lock to give, a disk that fails.
extern "C" int flock(int file, int operation) noexcept {
    errno = lockError;
    return lockError != 0 ? -1 : static_cast<int>(syscall(SYS_flock, file, operation));
}

extern "C" int ftruncate(int file, off_t size) noexcept {
    errno = truncateError;
    return truncateError != 0 ? -1 : truncate(("/proc/self/fd/" + std::to_string(file)).c_str(), size);
}

namespace GatewayApp {
namespace {

class TheLock : public testing::Test {
protected:
    ~TheLock() override { std::filesystem::remove_all(folder); }
    static std::string MakeFolder() {
        std::string made = testing::TempDir() + "orv-lock-XXXXXX";
        return mkdtemp(made.data());
    }
    std::string ErrorOfASecond() const {
        try {
            const InstanceLock second(path);
            return "no error" + second.Missing();
        } catch (const AnotherInstance& error) {
            return error.what();
        }
    }

    const std::string folder = MakeFolder();
    const std::string path = folder + "/run/lock";
};

TEST_F(TheLock, IsHadByTheFirst) {
    const InstanceLock first(path);
    EXPECT_EQ(first.Missing(), "");
}

TEST_F(TheLock, TellsTheSecondThatItIsTheSecondAndWhoIsTheFirst) {
    const InstanceLock first(path);
    const std::string error = ErrorOfASecond();
    EXPECT_NE(error.find("another gateway-app runs on this gateway already, process " + std::to_string(getpid())),
              std::string::npos)
        << error;
    EXPECT_NE(error.find("systemctl stop gateway-app"), std::string::npos);
}

TEST_F(TheLock, IsFreeAgainWhenTheFirstHasEnded) {
    { const InstanceLock first(path); }
    EXPECT_EQ(ErrorOfASecond(), "no error");
}

TEST_F(TheLock, IsFreeAgainWhenTheFirstWasKilled) {
    const pid_t child = fork();
    if (child == 0) {
        const InstanceLock first(path);
        abort();
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(ErrorOfASecond(), "no error");
}

TEST_F(TheLock, IsFreeWhateverAPowerCutHasLeftInItsFile) {
    std::filesystem::create_directory(folder + "/run");
    std::ofstream(path) << "1\n" << std::string(100, '\0') << "what was on the disk before";
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    const InstanceLock first(path);
    EXPECT_EQ(first.Missing(), "");
    EXPECT_NE(ErrorOfASecond().find(", process " + std::to_string(getpid()) + " "), std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(path), std::to_string(getpid()).size() + 1);
}

TEST_F(TheLock, CanBeOpenedByItsOwnerOnly) {
    const InstanceLock first(path);
    struct stat state {};
    ASSERT_EQ(stat(path.c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 0777U, 0600U);
}

TEST_F(TheLock, IsDoneWithoutWhereItsFolderCannotBeMade) {
    const InstanceLock lock("/proc/no/lock");
    EXPECT_NE(lock.Missing().find("cannot make the lock /proc/no/lock"), std::string::npos);
}

TEST_F(TheLock, IsNotTakenThroughALink) {
    std::filesystem::create_directory(folder + "/run");
    std::filesystem::create_symlink("/dev/null", path);
    EXPECT_NE(ErrorOfASecond().find("cannot open the lock"), std::string::npos);
}

TEST_F(TheLock, IsNotLaidToAnotherUserWhereSomethingElseHasItsName) {
    std::filesystem::create_directories(path);
    const std::string error = ErrorOfASecond();
    EXPECT_NE(error.find("cannot open the lock " + path + " (Is a directory): a second"), std::string::npos) << error;
    EXPECT_NE(error.find("Remove what is there, or name another lock with --lock"), std::string::npos) << error;
    EXPECT_EQ(error.find("another user"), std::string::npos) << error;
}

TEST_F(TheLock, IsMissingAndNotAnothersWhereTheKernelHasNone) {
    lockError = ENOLCK;
    const InstanceLock lock(path);
    lockError = 0;
    EXPECT_EQ(lock.Missing(), "cannot take the lock " + path + ": No locks available");
    EXPECT_EQ(ErrorOfASecond(), "no error");
}

TEST_F(TheLock, NamesItsHolderWhereTheFormerOneCannotBeRemoved) {
    std::filesystem::create_directory(folder + "/run");
    std::ofstream(path) << "4194304\nand more\n";
    truncateError = EIO;
    const InstanceLock first(path);
    truncateError = 0;
    EXPECT_NE(ErrorOfASecond().find(", process " + std::to_string(getpid()) + " "), std::string::npos);
}

TEST_F(TheLock, IsNotWantedWithoutAName) {
    const InstanceLock first("");
    EXPECT_EQ(first.Missing(), "");
}

} // namespace
} // namespace GatewayApp
