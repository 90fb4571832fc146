// SPDX-License-Identifier: Apache-2.0
#include "CsvWatch.h"

#include "Clock.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using OrvStackSdk::OrvEvent;

constexpr const char* DOWN = "\"Enterprise Feature\",\"Disabled\"\n\"Cloud Connection\",\"Down\"\n"
                             "\"Ethernet\",\"Down\"\n\"Cellular\",\"Down\"";

TEST(TheExpectedCsv, IsAllDownAtFirst) {
    EXPECT_EQ(ExpectedCsv().Text(), DOWN);
}

TEST(TheExpectedCsv, FollowsTheEvents) {
    ExpectedCsv content;
    for (const OrvEvent event :
         {OrvEvent::PANEL_CLOUD_ENABLED, OrvEvent::CLOUD_CONNECTED, OrvEvent::ETHERNET_CONNECTED,
          OrvEvent::CELLULAR_CONNECTED, OrvEvent::CELLULAR_DISCONNECTED, OrvEvent::ETHERNET_IP_LOST, OrvEvent::FAILURE})
        content.Reported(event);
    EXPECT_EQ(content.Text(), "\"Enterprise Feature\",\"Enabled\"\n\"Cloud Connection\",\"Up\"\n"
                              "\"Ethernet\",\"Up\"\n\"Cellular\",\"Down\"");
}

class TheLimit : public testing::Test {
protected:
    RepairLimit limit;
    RepairLimit::Time now = RepairLimit::Time() + 1h;
};

TEST_F(TheLimit, AllowsSixtyTimesAtOnceAndThenOneEveryFiveSeconds) {
    for (int i = 0; i < 60; ++i) {
        EXPECT_EQ(limit.Wait(now), 100ms);
        EXPECT_FALSE(limit.Reached());
        limit.Used();
    }
    EXPECT_TRUE(limit.Reached());
    EXPECT_EQ(limit.Wait(now), 5s);
    now += 5s;
    EXPECT_EQ(limit.Wait(now), 100ms);
    limit.Used();
    EXPECT_EQ(limit.Wait(now), 5s);
}

TEST_F(TheLimit, IsForgivenWithTime) {
    limit.Wait(now);
    for (int i = 0; i < 60; ++i)
        limit.Used();
    now += 5min;
    for (int i = 0; i < 60; ++i) {
        EXPECT_EQ(limit.Wait(now), 100ms);
        limit.Used();
    }
    EXPECT_EQ(limit.Wait(now), 5s);
}

/// A status file in a folder of its own, and a library that writes it when told.
class AWatchedCsv : public testing::Test {
protected:
    AWatchedCsv() : watch(loop, file, [this] { Repair(); }) { Write(DOWN); }
    ~AWatchedCsv() override {
        std::remove(file.c_str());
        rmdir(folder.c_str());
    }
    static std::string MakeFolder() {
        std::string path = testing::TempDir() + "orv-status-XXXXXX";
        return mkdtemp(path.data());
    }
    void Write(const std::string& text) const { std::ofstream(file) << text; }
    virtual void Repair() {
        ++repairs;
        Write(DOWN);
        if (repairs >= leaveAfter)
            loop.Quit();
    }
    std::string Content() const {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }
    void RunFor(std::chrono::milliseconds time) {
        Timer limit(loop, [this] { loop.Quit(); });
        limit.Once(time);
        loop.Run();
    }

    const std::string folder = MakeFolder();
    const std::string file = folder + "/status.csv";
    EventLoop loop;
    int repairs = 0;
    int leaveAfter = 1;
    CsvWatch watch;
};

// As where a file system is taken away that was mounted on the folder.
TEST_F(AWatchedCsv, IsPutRightInAFolderThatHasTakenThePlaceOfTheWatchedOne) {
    watch.SetActive(true);
    std::remove(file.c_str());
    rmdir(folder.c_str());
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    RunFor(5s);
    ASSERT_EQ(Content(), DOWN);
    leaveAfter = 2;
    Timer other(loop, [this] { Write("another program's"); });
    other.Once(1ms);
    RunFor(10s);
    EXPECT_EQ(repairs, 2);
    EXPECT_EQ(Content(), DOWN);
}

/// Its folder has got another name.
class AWatchedCsvWhoseFolderWasRenamed : public AWatchedCsv {
protected:
    AWatchedCsvWhoseFolderWasRenamed() {
        watch.SetActive(true);
        std::rename(folder.c_str(), renamed.c_str());
    }
    ~AWatchedCsvWhoseFolderWasRenamed() override {
        std::remove((renamed + "/status.csv").c_str());
        rmdir(renamed.c_str());
    }
    void IsChangedByAnotherProgram() {
        leaveAfter = repairs + 1;
        Timer other(loop, [this] { Write("another program's"); });
        other.Once(1ms);
        RunFor(10s);
    }
    static int WatchedFolders() {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
            std::ifstream descriptor(entry.path());
            for (std::string line; std::getline(descriptor, line);)
                count += line.rfind("inotify wd:", 0) == 0 ? 1 : 0;
        }
        return count;
    }

    const std::string renamed = folder + "-renamed";
};

TEST_F(AWatchedCsvWhoseFolderWasRenamed, IsPutRightInTheNewOne) {
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    RunFor(5s);
    ASSERT_EQ(Content(), DOWN);
    IsChangedByAnotherProgram();
    EXPECT_EQ(repairs, 2);
    EXPECT_EQ(Content(), DOWN);
    EXPECT_EQ(WatchedFolders(), 1);
}

TEST_F(AWatchedCsvWhoseFolderWasRenamed, IsPutRightWhenTheFolderHasItsNameBack) {
    ASSERT_EQ(std::rename(renamed.c_str(), folder.c_str()), 0);
    for (int times = 1; times <= 2; ++times) {
        IsChangedByAnotherProgram();
        EXPECT_EQ(repairs, times);
    }
}

TEST_F(AWatchedCsvWhoseFolderWasRenamed, SaysOnceThatItIsNotWatchedUntilThereIsAnother) {
    testing::internal::CaptureStderr();
    RunFor(5s);
    watch.Reported(OrvEvent::CLOUD_DISCONNECTED);
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string warning = "is not noticed any more: its folder cannot be watched: No such file or directory";
    EXPECT_NE(log.find(warning), std::string::npos) << log;
    EXPECT_EQ(log.find(warning), log.rfind(warning)) << log;
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    Write(DOWN);
    watch.Reported(OrvEvent::CLOUD_DISCONNECTED);
    IsChangedByAnotherProgram();
    EXPECT_EQ(Content(), DOWN);
}

TEST_F(AWatchedCsv, IsWatchedAgainWithTheNextEventWhereItsFolderWasMissing) {
    watch.SetActive(true);
    std::remove(file.c_str());
    rmdir(folder.c_str());
    leaveAfter = 1;
    RunFor(5s);
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    Write(DOWN);
    watch.Reported(OrvEvent::CLOUD_DISCONNECTED);
    Timer other(loop, [this] { Write("another program's"); });
    other.Once(1ms);
    leaveAfter = repairs + 1;
    RunFor(10s);
    EXPECT_EQ(Content(), DOWN);
}

TEST_F(AWatchedCsv, ThatCannotBeWatchedSaysWhichLimitIsReached) {
#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
    GTEST_SKIP() << "the sanitizer needs descriptors of its own";
#endif
#endif
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    std::string reason;
    try {
        const CsvWatch another(loop, file, [] {});
    } catch (const std::system_error& error) {
        reason = error.what();
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(reason, "watch files (see fs.inotify.max_user_instances): Too many open files");
}

TEST_F(AWatchedCsv, IsPutRightWhenAnotherProgramHasWrittenIt) {
    watch.SetActive(true);
    Write("something else");
    RunFor(10s);
    EXPECT_EQ(repairs, 1);
    EXPECT_EQ(Content(), DOWN);
}

TEST_F(AWatchedCsv, IsPutRightWhenItIsLongerThanItMustBe) {
    watch.SetActive(true);
    Write(std::string(DOWN) + "\n");
    RunFor(10s);
    EXPECT_EQ(repairs, 1);
}

TEST_F(AWatchedCsv, IsMadeAnewWhenItWasRemoved) {
    watch.SetActive(true);
    std::remove(file.c_str());
    RunFor(10s);
    EXPECT_EQ(Content(), DOWN);
}

TEST_F(AWatchedCsv, IsMadeAnewWhenItWasReplaced) {
    watch.SetActive(true);
    std::ofstream(folder + "/other") << "something else";
    std::rename((folder + "/other").c_str(), file.c_str());
    RunFor(10s);
    EXPECT_EQ(Content(), DOWN);
}

TEST_F(AWatchedCsv, IsPutRightEachTime) {
    watch.SetActive(true);
    for (leaveAfter = 1; leaveAfter <= 3; ++leaveAfter) {
        Write("something else");
        RunFor(10s);
        EXPECT_EQ(repairs, leaveAfter);
    }
}

TEST_F(AWatchedCsv, IsLeftAloneWhenItIsRight) {
    watch.SetActive(true);
    Write(DOWN);
    RunFor(500ms);
    EXPECT_EQ(repairs, 0);
}

TEST_F(AWatchedCsv, IsLeftAloneBeforeThereIsAClient) {
    Write("something else");
    RunFor(500ms);
    EXPECT_EQ(repairs, 0);
    watch.SetActive(true);
    RunFor(10s);
    EXPECT_EQ(repairs, 1);
}

TEST_F(AWatchedCsv, IsCheckedAgainstWhatWasReported) {
    watch.SetActive(true);
    watch.Reported(OrvEvent::CLOUD_CONNECTED);
    Write(DOWN);
    RunFor(10s);
    EXPECT_EQ(repairs, 1);
}

/// A library whose text does not reach the file, as when the folder is read-only: nothing tells of it.
class AWatchedCsvInAFolderThatTakesNothing : public AWatchedCsv {
protected:
    AWatchedCsvInAFolderThatTakesNothing() {
        watch.SetActive(true);
        leaveAfter = 1000; // the loop is left by the test
    }
    void Repair() override {
        ++repairs;
        vainWhenRepaired = watch.VainWrites();
        if (repairs > vain) {
            Write(UP);
            loop.Quit();
        }
        watch.Reported(OrvEvent::CLOUD_CONNECTED); // as the application does with each event
    }

    static constexpr const char* UP = "\"Enterprise Feature\",\"Disabled\"\n\"Cloud Connection\",\"Up\"\n"
                                      "\"Ethernet\",\"Down\"\n\"Cellular\",\"Down\"";
    int vain = 0; // so many times more it takes nothing
    unsigned vainWhenRepaired = 0;
};

TEST_F(AWatchedCsvInAFolderThatTakesNothing, GetsItsTextAsSoonAsTheFolderTakesIt) {
    watch.Reported(OrvEvent::CLOUD_CONNECTED); // the file says "Down" all the same
    RunFor(60s);
    EXPECT_EQ(repairs, 1);
    EXPECT_EQ(Content(), UP);
    EXPECT_EQ(watch.VainWrites(), 0U);
}

TEST_F(AWatchedCsvInAFolderThatTakesNothing, IsTriedAgainAndAgainAndTheApplicationKnowsHowOften) {
    vain = 1;
    watch.Reported(OrvEvent::CLOUD_CONNECTED);
    const auto begin = Now();
    RunFor(60s);
    EXPECT_EQ(repairs, 2);
    EXPECT_GE(Now() - begin, 3s); // 1 s, then 2 s
    EXPECT_EQ(Content(), UP);
}

TEST_F(AWatchedCsvInAFolderThatTakesNothing, IsNotTakenForAFileThatAnotherProgramWrites) {
    watch.Reported(OrvEvent::CLOUD_CONNECTED);
    Write(""); // a full folder: emptied, and nothing written
    RunFor(60s);
    EXPECT_EQ(vainWhenRepaired, 1U);
}

} // namespace
} // namespace GatewayApp
