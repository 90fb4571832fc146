// SPDX-License-Identifier: Apache-2.0
#include "OrvPlatform/Counters.h"
#include "support/LogLines.h"
#include "support/Pattern.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace OrvPlatform;
using namespace OrvPlatform::Testing;

// In place of the C library's, to see when a record is brought to the storage.
extern "C" int fdatasync(int file) {
    ++OrvPlatform::Testing::filesBroughtToStorage;
    return ::fsync(file);
}

namespace {

class ALogFile : public testing::Test {
protected:
    std::unique_ptr<LogChannel> Open(std::size_t maxBytes, std::size_t count) const {
        return std::make_unique<LogChannel>(MakeFileSink(path, maxBytes, count));
    }
    TemporaryFolder folder;
    const std::string path = folder.Path("gateway.log");
};

TEST_F(ALogFile, HoldsOneLineARecordWithTimeLevelLoggerAndText) {
    LogInfo(*Open(100000, 3), "text");
    const OrvTest::Pattern line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z info \[Test\] text\n)");
    EXPECT_TRUE(line.Matches(Content(path))) << Content(path);
}

TEST_F(ALogFile, HasTheTimeInUtcWhateverTheTimeZone) {
    const std::time_t before = std::time(nullptr);
    RunInChild({{"TZ", "XYZ-5:30"}}, [this] {
        ::tzset();
        LogInfo(*Open(100000, 3), "text");
    });
    const std::time_t after = std::time(nullptr);
    std::tm shown = {};
    ASSERT_NE(::strptime(Content(path).c_str(), "%Y-%m-%dT%H:%M:%S.", &shown), nullptr);
    EXPECT_GE(::timegm(&shown), before);
    EXPECT_LE(::timegm(&shown), after);
}

TEST_F(ALogFile, ContinuesWhereTheLastProcessEnded) {
    LogInfo(*Open(100000, 3), "first");
    LogInfo(*Open(100000, 3), "second");
    EXPECT_EQ(LinesIn(path), (Lines{"info [Test] first", "info [Test] second"}));
}

// A 32-bit processor with 32-bit times could not look at it.
TEST_F(ALogFile, MayHaveADateBeyond2038) {
    LogInfo(*Open(100000, 3), "first");
    ASSERT_EQ(std::system(("touch -d 2040-01-01 " + path).c_str()), 0); // NOLINT(concurrency-mt-unsafe)
    LogInfo(*Open(100000, 3), "second");
    EXPECT_EQ(LinesIn(path), (Lines{"info [Test] first", "info [Test] second"}));
}

TEST_F(ALogFile, IsWrittenBeforeTheRecordsCallReturns) {
    const auto log = Open(100000, 3);
    LogInfo(*log, "text");
    EXPECT_EQ(LinesIn(path), Lines{"info [Test] text"});
}

TEST_F(ALogFile, ReachesTheStorageOnlyWhenAsked) {
    const auto log = Open(100000, 3);
    filesBroughtToStorage = 0;
    LogInfo(*log, "text");
    EXPECT_EQ(filesBroughtToStorage, 0);
    LogInfo(*log, "text", true);
    EXPECT_EQ(filesBroughtToStorage, 1);
}

TEST_F(ALogFile, MakesItsFolder) {
    LogChannel log(MakeFileSink(folder.Path("new/gateway.log"), 100000, 3));
    LogInfo(log, "text");
    EXPECT_EQ(LinesIn(folder.Path("new/gateway.log")), Lines{"info [Test] text"});
}

TEST_F(ALogFile, GoesOnInAFreshFileWhenFullAndLosesNothingMeanwhile) {
    const auto log = Open(1000, 100);
    Lines expected;
    for (int i = 0; i < 100; ++i) {
        LogInfo(*log, std::to_string(i));
        expected.push_back("info [Test] " + std::to_string(i));
    }
    Lines found;
    for (int number = 99; number >= 0; --number) {
        const std::string file = number == 0 ? path : path + "." + std::to_string(number);
        EXPECT_LE(Content(file).size(), 1000U);
        for (const std::string& line : LinesIn(file))
            found.push_back(line);
    }
    EXPECT_EQ(found, expected);
    EXPECT_TRUE(std::filesystem::exists(path + ".3"));
}

TEST_F(ALogFile, IsFilledToTheLastByte) {
    LogInfo(*Open(1000, 2), "1");
    const auto log = Open(2 * Content(path).size(), 2);
    LogInfo(*log, "2");
    EXPECT_EQ(LinesIn(path), (Lines{"info [Test] 1", "info [Test] 2"}));
    LogInfo(*log, "3");
    EXPECT_EQ(LinesIn(path), Lines{"info [Test] 3"});
}

TEST_F(ALogFile, KeepsNoMoreFilesThanItMay) {
    const auto log = Open(200, 2);
    for (int i = 0; i < 50; ++i)
        LogInfo(*log, std::to_string(i));
    EXPECT_EQ(LinesIn(path).back(), "info [Test] 49");
    EXPECT_TRUE(std::filesystem::exists(path + ".1"));
    EXPECT_FALSE(std::filesystem::exists(path + ".2"));
}

TEST_F(ALogFile, AloneIsEmptiedWhenFull) {
    const auto log = Open(200, 1);
    for (int i = 0; i < 50; ++i)
        LogInfo(*log, std::to_string(i));
    EXPECT_LE(Content(path).size(), 200U);
    EXPECT_EQ(LinesIn(path).back(), "info [Test] 49");
    EXPECT_FALSE(std::filesystem::exists(path + ".1"));
}

TEST_F(ALogFile, TakesOneDescriptorHoweverOftenItIsFull) {
    const auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = descriptors();
    auto log = Open(200, 3);
    for (int i = 0; i < 50; ++i)
        LogInfo(*log, std::to_string(i));
    EXPECT_EQ(descriptors(), before + 1);
    log.reset();
    EXPECT_EQ(descriptors(), before);
}

TEST_F(ALogFile, IsNotInheritedByStartedPrograms) {
    const auto log = Open(100000, 3);
    LogInfo(*log, "text");
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == path) {
            EXPECT_TRUE(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
        }
    }
}

class ALogFileThatCannotBeWritten : public ALogFile {};

TEST_F(ALogFileThatCannotBeWritten, LosesRecordsSaysSoOnceAndTellsHowManyWhenItWorksAgain) {
    const std::string elsewhere = folder.Path("not/yet/there.log");
    const Ended ended = RunInChild({}, [&] {
        LogChannel log(MakeFileSink(elsewhere, 100000, 3));
        for (int i = 0; i < 3; ++i)
            LogInfo(log, "lost");
        std::filesystem::create_directories(folder.Path("not/yet"));
        LogInfo(log, "first");
        LogInfo(log, "second");
        ::_exit(static_cast<int>(ReadCounters().lostLogRecords));
    });
    EXPECT_EQ(ended.exitStatus, 3) << "as many as are counted for the program";
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: " + elsewhere + ": No such file or directory"});
    EXPECT_EQ(LinesIn(elsewhere), (Lines{"info [Test] first",
                                         "warning [Log] 3 records were lost before the previous one (" + elsewhere +
                                             ": No such file or directory)",
                                         "info [Test] second"}));
}

TEST_F(ALogFileThatCannotBeWritten, SurvivesAFullDisk) {
    const Ended ended = RunInChild({}, [] {
        LogChannel log(MakeFileSink("/dev/full", 100000, 3));
        for (int i = 0; i < 3; ++i)
            LogInfo(log, "lost", true);
    });
    EXPECT_EQ(ended.exitStatus, 0);
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: /dev/full: No space left on device"});
}

TEST_F(ALogFileThatCannotBeWritten, IsLookedForAgainWithEachRecord) {
    const std::string link = folder.Path("link");
    std::filesystem::create_symlink("/dev/full", link);
    RunInChild({}, [&link] {
        LogChannel log(MakeFileSink(link, 100000, 3));
        LogInfo(log, "lost");
        std::filesystem::remove(link);
        LogInfo(log, "text");
    });
    EXPECT_EQ(LinesIn(link).at(0), "info [Test] text");
}

TEST_F(ALogFileThatCannotBeWritten, DoesNotGrowWhenItsOldFilesCannotBeRenamed) {
    std::filesystem::create_directories(path + ".1/in/the/way");
    const Ended ended = RunInChild({}, [this] {
        const auto log = Open(200, 2);
        for (int i = 0; i < 50; ++i)
            LogInfo(*log, std::to_string(i));
    });
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: " + path + ".1: Is a directory"});
    EXPECT_LE(Content(path).size(), 200U);
}

/// A write that is cut short by the file size limit, as by a disk that fills up in the middle of a line.
TEST_F(ALogFileThatCannotBeWritten, EndsAHalfWrittenLineBeforeTheNextRecord) {
    const Ended ended = RunInChild({}, [this] {
        rlimit limit{};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        const rlim_t whole = limit.rlim_cur;
        limit.rlim_cur = 60;
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const auto log = Open(100000, 3);
        LogInfo(*log, "first");
        LogInfo(*log, "second");
        LogInfo(*log, "third");
        limit.rlim_cur = whole;
        ::setrlimit(RLIMIT_FSIZE, &limit);
        LogInfo(*log, "fourth");
    });
    EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal;
    const Lines lines = LinesIn(path);
    ASSERT_EQ(lines.size(), 4U) << Content(path);
    EXPECT_EQ(lines[0], "info [Test] first");
    EXPECT_EQ(lines[2], "info [Test] fourth");
    EXPECT_EQ(lines[3], "warning [Log] 2 records were lost before the previous one (" + path + ": File too large)");
}

class ARecord : public ALogFile {
protected:
    std::string Written(const LogRecord& record) {
        const std::string fresh = folder.Path("record-" + std::to_string(count++));
        LogChannel(MakeFileSink(fresh, 100000, 2)).Write(record);
        const std::string line = WithoutTime(Content(fresh));
        return line.substr(0, line.size() - 1);
    }
    int count = 0;
};

TEST_F(ARecord, ShowsItsTagBeforeItsText) {
    EXPECT_EQ(Written({LogLevel::TRACE, "Test", "Tick", "text"}), "trace [Test] Tick: text");
    EXPECT_EQ(Written({LogLevel::TRACE, "Test", "Init", "(name=x)"}), "trace [Test] Init(name=x)");
    EXPECT_EQ(Written({LogLevel::TRACE, "Test", "~Client", ""}), "trace [Test] ~Client");
    EXPECT_EQ(Written({LogLevel::TRACE, "Test", "", "text"}), "trace [Test] text");
}

TEST_F(ARecord, EscapesTagAndText) {
    EXPECT_EQ(Written({LogLevel::DEBUG, "Test", "a\nb", "c\x1b[2J\xff"}), R"(debug [Test] a\x0ab: c\x1b[2J\xff)");
}

TEST_F(ARecord, OfExactlyTheMostBytesIsWhole) {
    const std::string text(MAX_RECORD_BYTES, 'x');
    EXPECT_EQ(Written({LogLevel::INFO, "Test", "", text}), "info [Test] " + text);
    EXPECT_EQ(Written({LogLevel::INFO, "Test", "", text + "y"}), "info [Test] " + text + " [cut, 8193 bytes in all]");
}

TEST_F(ARecord, LongerThanTheMostBytesOnlyWithItsEscapesIsCutToo) {
    const std::string text(MAX_RECORD_BYTES / 4 + 1, '\n');
    const std::string line = Written({LogLevel::INFO, "Test", "", text});
    EXPECT_EQ(line.size(), MAX_RECORD_BYTES + std::strlen("info [Test]  [cut, 2049 bytes in all]"));
    EXPECT_NE(line.find("\\x0a [cut, 2049 bytes in all]"), std::string::npos);
}

TEST_F(ARecord, LeavesErrnoAlone) {
    LogChannel log(MakeFileSink("/nowhere/at/all", 100000, 3));
    errno = E2BIG;
    testing::internal::CaptureStderr();
    log.Write({LogLevel::INFO, "Test", "", "text"});
    const int after = errno;
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(after, E2BIG);
}

TEST_F(ARecord, OfACancelledThreadIsWrittenBeforeTheThreadEnds) {
    const auto log = Open(100000, 3);
    std::thread thread([&log] {
        ::pthread_cancel(::pthread_self());
        LogInfo(*log, "last words");
        ::pthread_testcancel();
        LogInfo(*log, "never said");
    });
    thread.join();
    EXPECT_EQ(LinesIn(path), Lines{"info [Test] last words"});
}

} // namespace
