// SPDX-License-Identifier: Apache-2.0
// The status files as an attacker sees them: their names are known, and everybody may put something there first.
#include "StatusHandlerFixture.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace OrvStackSdk {
namespace {

using namespace Testing;

constexpr const char* PRECIOUS = "/var/tmp/precious";
constexpr uid_t SOMEBODY_ELSE = 65534;

const std::string ALL_DOWN = "\"Enterprise Feature\",\"Disabled\"\n"
                             "\"Cloud Connection\",\"Down\"\n"
                             "\"Ethernet\",\"Down\"\n"
                             "\"Cellular\",\"Down\"";
const std::string ERROR_AT_ZERO = "0,Fatal Error Detected";

struct stat StatusOf(const char* path) {
    struct stat status {};
    EXPECT_EQ(lstat(path, &status), 0) << path;
    return status;
}

/// Does it at both paths.
void Plant(const std::function<int(const char* path)>& plant) {
    for (const char* path : {STATUS_FILE, ERROR_FILE})
        ASSERT_EQ(plant(path), 0) << path;
}

class APlaceThatIsTaken : public StatusHandlerFixture {
protected:
    APlaceThatIsTaken() {
        RemoveFile(PRECIOUS);
        WriteFile(PRECIOUS, "precious");
        // An open that waits ends the program instead of holding up all tests.
        alarm(30);
    }

    ~APlaceThatIsTaken() override {
        alarm(0);
        RemoveFile(PRECIOUS);
    }

    void WriteBothFiles() {
        Start();
        Send(OrvEvent::FAILURE);
    }

    static void ExpectFilesOfOurOwn() {
        for (const char* path : {STATUS_FILE, ERROR_FILE}) {
            const auto status = StatusOf(path);
            EXPECT_TRUE(S_ISREG(status.st_mode)) << path;
            EXPECT_EQ(status.st_nlink, 1U) << path;
            EXPECT_EQ(status.st_uid, geteuid()) << path;
        }
        EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
        EXPECT_EQ(ContentOf(ERROR_FILE), ERROR_AT_ZERO);
        EXPECT_EQ(ContentOf(PRECIOUS), "precious");
    }
};

TEST_F(APlaceThatIsTaken, ByALinkIsFreedAndTheLinksTargetSpared) {
    Plant([](const char* path) { return symlink(PRECIOUS, path); });
    WriteBothFiles();
    ExpectFilesOfOurOwn();
}

TEST_F(APlaceThatIsTaken, ByALinkToNowhereIsFreedAndNothingMadeThere) {
    Plant([](const char* path) { return symlink("/var/tmp/nowhere", path); });
    WriteBothFiles();
    ExpectFilesOfOurOwn();
    EXPECT_FALSE(FileExists("/var/tmp/nowhere"));
}

TEST_F(APlaceThatIsTaken, ByAFurtherNameOfAnotherFileIsFreed) {
    Plant([](const char* path) { return link(PRECIOUS, path); });
    WriteBothFiles();
    ExpectFilesOfOurOwn();
    EXPECT_EQ(StatusOf(PRECIOUS).st_nlink, 1U);
}

TEST_F(APlaceThatIsTaken, ByAFifoThatNobodyReadsIsFreedWithoutWaiting) {
    Plant([](const char* path) { return mkfifo(path, 0666); });
    WriteBothFiles();
    ExpectFilesOfOurOwn();
}

TEST_F(APlaceThatIsTaken, ByAFifoThatSomebodyReadsIsFreedAndTellsNothing) {
    Plant([](const char* path) { return mkfifo(path, 0666); });
    const int reader = open(STATUS_FILE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    WriteBothFiles();
    ExpectFilesOfOurOwn();
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(APlaceThatIsTaken, ByASocketIsFreed) {
    Plant([](const char* path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int bound = bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        close(listener);
        return bound;
    });
    WriteBothFiles();
    ExpectFilesOfOurOwn();
}

// A 32-bit processor with 32-bit times could not look at it.
TEST_F(APlaceThatIsTaken, ByALinkWithADateBeyond2038IsFreed) {
    Plant([](const char* path) {
        const std::string date = std::string("touch -h -d 2040-01-01 ") + path;
        return symlink(PRECIOUS, path) + std::system(date.c_str()); // NOLINT(concurrency-mt-unsafe)
    });
    WriteBothFiles();
    ExpectFilesOfOurOwn();
}

TEST_F(APlaceThatIsTaken, WhileTheHandlerRunsIsFreedByTheNextEvent) {
    WriteBothFiles();
    RemoveStatusFiles();
    Plant([](const char* path) { return symlink(PRECIOUS, path); });
    Send(OrvEvent::CLOUD_DISCONNECTED);
    ExpectFilesOfOurOwn();
}

TEST_F(APlaceThatIsTaken, AnewAllTheTimeNeverLeadsElsewhere) {
    Start();
    std::atomic<bool> stop{false};
    std::thread attacker([&stop] {
        while (!stop) {
            unlink(STATUS_FILE);
            [[maybe_unused]] const int linked = symlink(PRECIOUS, STATUS_FILE);
            unlink(STATUS_FILE);
            [[maybe_unused]] const int again = link(PRECIOUS, STATUS_FILE);
        }
    });
    for (int event = 0; event < 2000; ++event)
        Send(OrvEvent::CLOUD_DISCONNECTED);
    stop = true;
    attacker.join();
    EXPECT_EQ(ContentOf(PRECIOUS), "precious");
    Send(OrvEvent::FAILURE);
    ExpectFilesOfOurOwn();
}

/// Needs two users.
class APlaceTakenBySomebodyElse : public APlaceThatIsTaken {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can make files of others";
        Plant([](const char* path) {
            WriteFile(path, "planted");
            return chmod(path, 0666) + chown(path, SOMEBODY_ELSE, SOMEBODY_ELSE);
        });
    }
};

TEST_F(APlaceTakenBySomebodyElse, IsFreedSoThatNobodyElseCanWriteThere) {
    const int kept = open(STATUS_FILE, O_RDWR | O_CLOEXEC);
    WriteBothFiles();
    EXPECT_EQ(pwrite(kept, "forged", 6, 0), 6);
    close(kept);
    ExpectFilesOfOurOwn();
}

TEST_F(APlaceTakenBySomebodyElse, IsLeftAloneSilentlyWhenItCannotBeFreed) {
    ASSERT_EQ(seteuid(1000), 0);
    EXPECT_NO_THROW(WriteBothFiles());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(ContentOf(STATUS_FILE), "planted");
    EXPECT_EQ(ContentOf(ERROR_FILE), "planted");
    EXPECT_EQ(OrvPlatformFake::Only(OrvPlatformFake::Journal::Take(), {"log warning", "log error"}),
              OrvPlatformFake::Entries{});
}

class AStatusFileOfItsOwn : public StatusHandlerFixture {
protected:
    AStatusFileOfItsOwn() { Start(); }
};

TEST_F(AStatusFileOfItsOwn, StaysTheSameFileForThoseWhoKeepItOpen) {
    chmod(STATUS_FILE, 0640);
    const auto before = StatusOf(STATUS_FILE);
    std::ifstream reader(STATUS_FILE);
    Send(OrvEvent::ETHERNET_CONNECTED);
    const auto after = StatusOf(STATUS_FILE);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    const std::string seen{std::istreambuf_iterator<char>(reader), std::istreambuf_iterator<char>()};
    EXPECT_NE(seen.find(R"("Ethernet","Up")"), std::string::npos) << seen;
}

TEST_F(AStatusFileOfItsOwn, IsMadeReadableAndWritableAsTheUmaskSays) {
    for (const auto& [mask, mode] : {std::pair<mode_t, mode_t>{022, 0644}, {027, 0640}, {0, 0666}}) {
        RemoveStatusFiles();
        const mode_t before = umask(mask);
        Send(OrvEvent::FAILURE);
        umask(before);
        EXPECT_EQ(StatusOf(STATUS_FILE).st_mode & 07777, mode);
        EXPECT_EQ(StatusOf(ERROR_FILE).st_mode & 07777, mode);
    }
}

TEST_F(AStatusFileOfItsOwn, IsNotHandedOnToProgramsThatAreStartedMeanwhile) {
    std::string open = "unread";
    handler = std::make_unique<OrvStatusHandler>(session, route, [&open] {
        open.clear();
        char piece[256];
        FILE* listing = popen("exec ls -l /proc/self/fd", "r");
        while (std::fgets(piece, sizeof piece, listing) != nullptr)
            open += piece;
        pclose(listing);
        return OrvStatusHandler::Clock::time_point{};
    });
    Send(OrvEvent::FAILURE);
    EXPECT_NE(open.find("/proc/"), std::string::npos) << open;
    EXPECT_EQ(open.find(ERROR_FILE), std::string::npos) << open;
}

TEST_F(AStatusFileOfItsOwn, IsSeenEmptyOrWhole) {
    std::atomic<bool> stop{false};
    std::string torn;
    std::thread reader([&] {
        while (!stop) {
            const std::string seen = ContentOf(STATUS_FILE);
            if (!seen.empty() && seen != ALL_DOWN)
                torn = seen;
        }
    });
    for (int event = 0; event < 2000; ++event)
        Send(OrvEvent::CLOUD_DISCONNECTED);
    stop = true;
    reader.join();
    EXPECT_EQ(torn, "");
}

TEST_F(AStatusFileOfItsOwn, IsKeptWhenThereIsNoDescriptorToWriteItWith) {
    // The sanitizers need descriptors for what they have not seen before.
    Send(OrvEvent::ETHERNET_DISCONNECTED);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    Send(OrvEvent::ETHERNET_CONNECTED);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
}

} // namespace
} // namespace OrvStackSdk
