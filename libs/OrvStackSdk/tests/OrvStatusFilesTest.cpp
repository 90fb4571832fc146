// SPDX-License-Identifier: Apache-2.0
#include "StatusHandlerFixture.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <limits>
#include <sys/mount.h>
#include <sys/resource.h>

namespace OrvStackSdk {
namespace {

using namespace std::chrono_literals;
using namespace Testing;
using OrvPlatformFake::FakeConnman;

using WallClock = OrvStatusHandler::Clock;

const std::string ALL_DOWN = "\"Enterprise Feature\",\"Disabled\"\n"
                             "\"Cloud Connection\",\"Down\"\n"
                             "\"Ethernet\",\"Down\"\n"
                             "\"Cellular\",\"Down\"";

class TheStatusFile : public StatusHandlerFixture {
protected:
    TheStatusFile() { Start(); }
};

TEST_F(TheStatusFile, ShowsEverythingDownFromTheStart) {
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
    EXPECT_FALSE(FileExists(ERROR_FILE));
}

TEST_F(TheStatusFile, ShowsAGatewayConnectedOverEthernet) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CLOUD_CONNECTED,
          OrvEvent::PANEL_CLOUD_ENABLED});
    EXPECT_EQ(ContentOf(STATUS_FILE), "\"Enterprise Feature\",\"Enabled\"\n"
                                      "\"Cloud Connection\",\"Up\"\n"
                                      "\"Ethernet\",\"Up\"\n"
                                      "\"Cellular\",\"Down\"");
}

TEST_F(TheStatusFile, ShowsACellularLinkWithoutAnAddressAsUp) {
    Send(OrvEvent::CELLULAR_CONNECTED);
    EXPECT_EQ(ContentOf(STATUS_FILE), "\"Enterprise Feature\",\"Disabled\"\n"
                                      "\"Cloud Connection\",\"Down\"\n"
                                      "\"Ethernet\",\"Down\"\n"
                                      "\"Cellular\",\"Up\"");
}

TEST_F(TheStatusFile, ShowsAnAddressWithoutALinkAsDown) {
    Send({OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_IP_GAINED});
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
}

TEST_F(TheStatusFile, KeepsEthernetUpWhenOnlyTheAddressIsLost) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED});
    const auto before = ContentOf(STATUS_FILE);
    Send(OrvEvent::ETHERNET_IP_LOST);
    EXPECT_EQ(ContentOf(STATUS_FILE), before);
    EXPECT_NE(before.find(R"("Ethernet","Up")"), std::string::npos);
}

TEST_F(TheStatusFile, ShowsAPulledCableAsDownWhileTheAddressStays) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::ETHERNET_DISCONNECTED});
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
}

TEST_F(TheStatusFile, ReturnsToEverythingDown) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::CELLULAR_CONNECTED, OrvEvent::CLOUD_CONNECTED,
          OrvEvent::PANEL_CLOUD_ENABLED});
    EXPECT_EQ(ContentOf(STATUS_FILE).find("Down"), std::string::npos);
    Send({OrvEvent::ETHERNET_DISCONNECTED, OrvEvent::CELLULAR_DISCONNECTED, OrvEvent::CLOUD_DISCONNECTED,
          OrvEvent::PANEL_CLOUD_DISABLED});
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
}

TEST_F(TheStatusFile, IsWrittenAnewByEveryEvent) {
    WriteFile(STATUS_FILE, std::string(1000, 'x'));
    Send(OrvEvent::ETHERNET_IP_LOST);
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
    RemoveStatusFiles();
    Send(OrvEvent{13});
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
}

TEST_F(TheStatusFile, OutlivesTheHandler) {
    Send(OrvEvent::FAILURE);
    handler.reset();
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
    EXPECT_TRUE(FileExists(ERROR_FILE));
}

TEST_F(TheStatusFile, IsWrittenAfterTheRouteWasUpdated) {
    std::string seenByRoute;
    FakeConnman::Get().SetCommandHook([&](const std::string&) { seenByRoute = ContentOf(STATUS_FILE); });
    Send(OrvEvent::ETHERNET_CONNECTED);
    EXPECT_EQ(seenByRoute, ALL_DOWN);
    EXPECT_NE(ContentOf(STATUS_FILE), ALL_DOWN);
}

class FilesOfAnEarlierRun : public StatusHandlerFixture {
protected:
    FilesOfAnEarlierRun() {
        WriteFile(STATUS_FILE, "old status, longer than what takes its place" + std::string(200, '.'));
        WriteFile(ERROR_FILE, "old error");
        Start();
    }
};

TEST_F(FilesOfAnEarlierRun, LoseTheStatusAtOnce) {
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN);
}

TEST_F(FilesOfAnEarlierRun, KeepTheErrorUntilTheFirstFailure) {
    Send({OrvEvent::CLOUD_CONNECTED, OrvEvent::CLOUD_DISCONNECTED});
    EXPECT_EQ(ContentOf(ERROR_FILE), "old error");
    wallTime.Set(WallClock::time_point(5s));
    Send(OrvEvent::FAILURE);
    EXPECT_EQ(ContentOf(ERROR_FILE), "5,Fatal Error Detected");
}

class TheErrorFile : public StatusHandlerFixture {
protected:
    TheErrorFile() { Start(); }

    std::string AfterFailureAt(WallClock::duration sinceEpoch) {
        wallTime.Set(WallClock::time_point(sinceEpoch));
        Send(OrvEvent::FAILURE);
        return ContentOf(ERROR_FILE);
    }
};

TEST_F(TheErrorFile, CarriesTheSecondsSinceTheEpoch) {
    EXPECT_EQ(AfterFailureAt(1794813600s), "1794813600,Fatal Error Detected"); // 2026-11-16 07:20:00 UTC
}

TEST_F(TheErrorFile, CutsTheFractionOff) {
    EXPECT_EQ(AfterFailureAt(1794813600s + 999999999ns), "1794813600,Fatal Error Detected");
}

TEST_F(TheErrorFile, KnowsTimesBeyondThirtyTwoBits) {
    EXPECT_EQ(AfterFailureAt(5000000000s), "5000000000,Fatal Error Detected");
    EXPECT_EQ(AfterFailureAt(WallClock::duration::max()), "9223372036,Fatal Error Detected");
}

TEST_F(TheErrorFile, CutsTowardsTheEpochWhenTheClockStandsBeforeIt) {
    EXPECT_EQ(AfterFailureAt(-1500ms), "-1,Fatal Error Detected");
    EXPECT_EQ(AfterFailureAt(-1ns), "0,Fatal Error Detected");
    EXPECT_EQ(AfterFailureAt(-7s), "-7,Fatal Error Detected");
}

TEST_F(TheErrorFile, IsNotThereWithoutAFailure) {
    Send({OrvEvent::CLOUD_CONNECTED, OrvEvent::ETHERNET_DISCONNECTED, OrvEvent{13}});
    EXPECT_FALSE(FileExists(ERROR_FILE));
}

TEST_F(TheErrorFile, CarriesTheTimeOfTheLatestEvent) {
    EXPECT_EQ(AfterFailureAt(100s), "100,Fatal Error Detected");
    wallTime.Advance(1s);
    Send(OrvEvent::CLOUD_CONNECTED);
    EXPECT_EQ(ContentOf(ERROR_FILE), "101,Fatal Error Detected");
    RemoveFile(ERROR_FILE);
    wallTime.Advance(1s);
    Send(OrvEvent{13});
    EXPECT_EQ(ContentOf(ERROR_FILE), "102,Fatal Error Detected");
}

TEST_F(TheErrorFile, IsWrittenAfterTheStatusFile) {
    std::string statusThen;
    bool errorFileThen = false;
    std::string errorThen = "unread";
    handler = std::make_unique<OrvStatusHandler>(session, route, [&] {
        statusThen = ContentOf(STATUS_FILE);
        errorFileThen = FileExists(ERROR_FILE);
        errorThen = ContentOf(ERROR_FILE);
        return WallClock::time_point(3s);
    });
    RemoveFile(STATUS_FILE);
    Send(OrvEvent::FAILURE);
    EXPECT_EQ(statusThen, ALL_DOWN);
    // The clock is read when the file is open and empty.
    EXPECT_TRUE(errorFileThen);
    EXPECT_EQ(errorThen, "");
    EXPECT_EQ(ContentOf(ERROR_FILE), "3,Fatal Error Detected");
}

TEST_F(TheErrorFile, CarriesTheTimeOfTheMachineUnlessToldOtherwise) {
    handler = std::make_unique<OrvStatusHandler>(session, route);
    const auto seconds = [] {
        return std::chrono::duration_cast<std::chrono::seconds>(WallClock::now().time_since_epoch());
    };
    const auto before = seconds();
    Send(OrvEvent::FAILURE);
    const auto written = std::chrono::seconds(std::stoll(ContentOf(ERROR_FILE)));
    EXPECT_LE(before, written);
    EXPECT_LE(written, seconds());
}

class FilesThatCannotBeWritten : public StatusHandlerFixture {
protected:
    void ExpectSilence() {
        EXPECT_NO_THROW(Start());
        EXPECT_NO_THROW(Send({OrvEvent::FAILURE, OrvEvent::CLOUD_CONNECTED}));
        EXPECT_EQ(OrvPlatformFake::Only(OrvPlatformFake::Journal::Take(), {"log", "wrapper"}),
                  OrvPlatformFake::Entries{});
    }

    /// The handler's picture was not harmed: it shows as soon as the files can be written.
    void ExpectRecovery() {
        RemoveStatusFiles();
        Send(OrvEvent::ETHERNET_CONNECTED);
        EXPECT_EQ(ContentOf(STATUS_FILE), "\"Enterprise Feature\",\"Disabled\"\n"
                                          "\"Cloud Connection\",\"Up\"\n"
                                          "\"Ethernet\",\"Up\"\n"
                                          "\"Cellular\",\"Down\"");
        EXPECT_EQ(ContentOf(ERROR_FILE), "0,Fatal Error Detected");
    }
};

TEST_F(FilesThatCannotBeWritten, AreLostSilentlyWhenAFolderStandsInTheWay) {
    std::filesystem::create_directory(STATUS_FILE);
    std::filesystem::create_directory(ERROR_FILE);
    ExpectSilence();
    ExpectRecovery();
}

TEST_F(FilesThatCannotBeWritten, AreCutSilentlyWhereTheProcessMayNotWriteMore) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit little{20, before.rlim_max};
    const auto signalBefore = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &little);
    ExpectSilence();
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, signalBefore);
    EXPECT_EQ(ContentOf(STATUS_FILE), ALL_DOWN.substr(0, 20));
    ExpectRecovery();
}

/// Needs a /var/tmp that can be done anything to.
class FilesInABadFolder : public FilesThatCannotBeWritten {
protected:
    void SetUp() override {
        if (!VarTmpIsPrivate())
            GTEST_SKIP() << "this machine gives the test no /var/tmp of its own";
    }
};

TEST_F(FilesInABadFolder, AreLostSilentlyWhenItIsMissing) {
    ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, "size=64k"), 0);
    ExpectSilence();
    EXPECT_FALSE(std::filesystem::exists("/var/tmp"));
    ASSERT_EQ(umount("/var"), 0);
    ExpectRecovery();
}

TEST_F(FilesInABadFolder, AreLostSilentlyWhenItIsReadOnly) {
    ASSERT_EQ(mount(nullptr, "/var/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    ExpectSilence();
    ASSERT_EQ(mount(nullptr, "/var/tmp", nullptr, MS_REMOUNT, nullptr), 0);
    ExpectRecovery();
}

TEST_F(FilesInABadFolder, AreLostSilentlyWhenTheDiskIsFull) {
    WriteFile("/var/tmp/filler", std::string(2 << 20, 'x'));
    ExpectSilence();
    EXPECT_EQ(ContentOf(STATUS_FILE), "");
    RemoveFile("/var/tmp/filler");
    ExpectRecovery();
}

} // namespace
} // namespace OrvStackSdk
