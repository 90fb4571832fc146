// SPDX-License-Identifier: Apache-2.0
#include "LogChannel.h"
#include "support/ChildProcess.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
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

using Lines = std::vector<std::string>;

Lines LinesIn(const std::string& path) {
    Lines lines;
    for (const std::string& line : SplitLines(Content(path)))
        lines.push_back(WithoutTime(line));
    return lines;
}

void Say(LogChannel& log, const std::string& text, bool flush = false) {
    LogRecord record{2, "Test", {}, text};
    record.flush = flush;
    log.Write(record);
}

class ALogFile : public testing::Test {
protected:
    std::unique_ptr<LogChannel> Open(std::size_t maxBytes, std::size_t count) const {
        return std::make_unique<LogChannel>(MakeFileSink(path, maxBytes, count));
    }
    TemporaryFolder folder;
    const std::string path = folder.Path("gateway.log");
};

TEST_F(ALogFile, HoldsOneLineARecordWithTimeLevelLoggerAndText) {
    Say(*Open(100000, 3), "text");
    EXPECT_TRUE(
        std::regex_match(Content(path), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z info \[Test\] text\n)")))
        << Content(path);
}

TEST_F(ALogFile, HasTheTimeInUtcWhateverTheTimeZone) {
    const std::time_t before = std::time(nullptr);
    RunInChild({{"TZ", "XYZ-5:30"}}, [this] {
        ::tzset();
        Say(*Open(100000, 3), "text");
    });
    const std::time_t after = std::time(nullptr);
    std::tm shown = {};
    ASSERT_NE(::strptime(Content(path).c_str(), "%Y-%m-%dT%H:%M:%S.", &shown), nullptr);
    EXPECT_GE(::timegm(&shown), before);
    EXPECT_LE(::timegm(&shown), after);
}

TEST_F(ALogFile, ContinuesWhereTheLastProcessEnded) {
    Say(*Open(100000, 3), "first");
    Say(*Open(100000, 3), "second");
    EXPECT_EQ(LinesIn(path), (Lines{"info [Test] first", "info [Test] second"}));
}

TEST_F(ALogFile, IsWrittenBeforeTheRecordsCallReturns) {
    const auto log = Open(100000, 3);
    Say(*log, "text");
    EXPECT_EQ(LinesIn(path), Lines{"info [Test] text"});
}

TEST_F(ALogFile, ReachesTheStorageOnlyWhenAsked) {
    const auto log = Open(100000, 3);
    filesBroughtToStorage = 0;
    Say(*log, "text");
    EXPECT_EQ(filesBroughtToStorage, 0);
    Say(*log, "text", true);
    EXPECT_EQ(filesBroughtToStorage, 1);
}

TEST_F(ALogFile, MakesItsFolder) {
    LogChannel log(MakeFileSink(folder.Path("new/gateway.log"), 100000, 3));
    Say(log, "text");
    EXPECT_EQ(LinesIn(folder.Path("new/gateway.log")), Lines{"info [Test] text"});
}

TEST_F(ALogFile, GoesOnInAFreshFileWhenFullAndLosesNothingMeanwhile) {
    const auto log = Open(1000, 100);
    Lines expected;
    for (int i = 0; i < 100; ++i) {
        Say(*log, std::to_string(i));
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

TEST_F(ALogFile, KeepsNoMoreFilesThanItMay) {
    const auto log = Open(200, 2);
    for (int i = 0; i < 50; ++i)
        Say(*log, std::to_string(i));
    EXPECT_EQ(LinesIn(path).back(), "info [Test] 49");
    EXPECT_TRUE(std::filesystem::exists(path + ".1"));
    EXPECT_FALSE(std::filesystem::exists(path + ".2"));
}

TEST_F(ALogFile, AloneIsEmptiedWhenFull) {
    const auto log = Open(200, 1);
    for (int i = 0; i < 50; ++i)
        Say(*log, std::to_string(i));
    EXPECT_LE(Content(path).size(), 200U);
    EXPECT_EQ(LinesIn(path).back(), "info [Test] 49");
    EXPECT_FALSE(std::filesystem::exists(path + ".1"));
}

TEST_F(ALogFile, IsNotInheritedByStartedPrograms) {
    const auto log = Open(100000, 3);
    Say(*log, "text");
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
            Say(log, "lost");
        std::filesystem::create_directories(folder.Path("not/yet"));
        Say(log, "first");
        Say(log, "second");
    });
    EXPECT_EQ(ended.exitStatus, 0);
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
            Say(log, "lost", true);
    });
    EXPECT_EQ(ended.exitStatus, 0);
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: /dev/full: No space left on device"});
}

TEST_F(ALogFileThatCannotBeWritten, IsLookedForAgainWithEachRecord) {
    const std::string link = folder.Path("link");
    std::filesystem::create_symlink("/dev/full", link);
    RunInChild({}, [&link] {
        LogChannel log(MakeFileSink(link, 100000, 3));
        Say(log, "lost");
        std::filesystem::remove(link);
        Say(log, "text");
    });
    EXPECT_EQ(LinesIn(link).at(0), "info [Test] text");
}

TEST_F(ALogFileThatCannotBeWritten, DoesNotGrowWhenItsOldFilesCannotBeRenamed) {
    std::filesystem::create_directories(path + ".1/in/the/way");
    const Ended ended = RunInChild({}, [this] {
        const auto log = Open(200, 2);
        for (int i = 0; i < 50; ++i)
            Say(*log, std::to_string(i));
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
        Say(*log, "first");
        Say(*log, "second");
        Say(*log, "third");
        limit.rlim_cur = whole;
        ::setrlimit(RLIMIT_FSIZE, &limit);
        Say(*log, "fourth");
    });
    EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal;
    const Lines lines = LinesIn(path);
    ASSERT_EQ(lines.size(), 4U) << Content(path);
    EXPECT_EQ(lines[0], "info [Test] first");
    EXPECT_EQ(lines[2], "info [Test] fourth");
    EXPECT_EQ(lines[3], "warning [Log] 2 records were lost before the previous one (" + path + ": File too large)");
}

class StandardError : public testing::Test {
protected:
    StandardError() { EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0); }
    ~StandardError() override {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    int ends[2] = {-1, -1};
};

TEST_F(StandardError, TakesWholeLines) {
    LogChannel log(MakeStderrSink(ends[1]));
    Say(log, "text");
    char buffer[200] = {};
    const auto count = ::read(ends[0], buffer, sizeof buffer);
    EXPECT_EQ(WithoutTime(std::string(buffer, static_cast<std::size_t>(count))), "info [Test] text\n");
}

class StandardErrorWithoutAReader : public StandardError {
protected:
    StandardErrorWithoutAReader() {
        ::close(ends[0]);
        ends[0] = -1;
    }
};

TEST_F(StandardErrorWithoutAReader, DoesNotEndTheProgram) {
    const Ended ended = RunInChild({}, [this] {
        std::signal(SIGPIPE, SIG_DFL);
        LogChannel log(MakeStderrSink(ends[1]));
        Say(log, "lost");
    });
    EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal;
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: standard error: Broken pipe"});
}

TEST_F(StandardErrorWithoutAReader, LeavesThePipeSignalAsTheProgramHasIt) {
    const Ended ended = RunInChild({}, [this] {
        std::signal(SIGPIPE, SIG_DFL);
        LogChannel log(MakeStderrSink(ends[1]));
        Say(log, "lost");
        ::raise(SIGPIPE);
    });
    EXPECT_EQ(ended.Lines().size(), 1U);
    EXPECT_EQ(ended.signal, SIGPIPE);
}

class ASyslogDaemon : public testing::Test {
protected:
    ASyslogDaemon() { Start(); }
    ~ASyslogDaemon() override { Stop(); }

    void Start() {
        socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const timeval tenSeconds{10, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &tenSeconds, sizeof tenSeconds);
    }

    void Stop() {
        ::close(socket);
        ::unlink(path.c_str());
    }

    std::string Receive() const {
        char buffer[16384];
        const auto count = ::recv(socket, buffer, sizeof buffer, 0);
        return count < 0 ? "nothing" : std::string(buffer, static_cast<std::size_t>(count));
    }

    /// What begins each of this process's packets of that level.
    static std::string Header(int priority) {
        return "<" + std::to_string(priority) + ">gateway-app[" + std::to_string(::getpid()) + "]: ";
    }

    TemporaryFolder folder;
    const std::string path = folder.Path("log");
    int socket = -1;
    LogChannel log{MakeSyslogSink(path, "gateway-app")};
};

TEST_F(ASyslogDaemon, GetsADatagramARecordWithTheDaemonFacilityAndNoTime) {
    constexpr int severities[] = {7, 7, 6, 4, 3, 2};
    const char* words[] = {"trace", "debug", "info", "warning", "error", "critical"};
    for (int level = 0; level <= 5; ++level) {
        log.Write({level, "Test", "Tag", "text"});
        EXPECT_EQ(Receive(), Header(3 * 8 + severities[level]) + words[level] + " [Test] Tag: text");
    }
}

TEST_F(ASyslogDaemon, IsFoundAgainAfterItsRestart) {
    Say(log, "before");
    EXPECT_EQ(Receive(), Header(30) + "info [Test] before");
    Stop();
    Start();
    Say(log, "after");
    EXPECT_EQ(Receive(), Header(30) + "info [Test] after");
}

TEST_F(ASyslogDaemon, ThatIsGoneCostsTheRecordsOnly) {
    const Ended ended = RunInChild({}, [this] {
        Stop();
        Say(log, "lost");
        Say(log, "lost");
        Start();
        Say(log, "after");
        for (int i = 0; i < 2; ++i)
            std::fprintf(stderr, "%s\n", Receive().substr(Header(30).size()).c_str());
    });
    EXPECT_EQ(
        ended.Lines(),
        (Lines{"The log loses records: " + path + ": No such file or directory", "info [Test] after",
               "warning [Log] 2 records were lost before the previous one (" + path + ": No such file or directory)"}));
}

TEST_F(ASyslogDaemon, ThatHangsCostsTheRecordsOnly) {
    const Ended ended = RunInChild({}, [this] {
        // More than any socket queue takes; a sink that waits for the daemon never comes to the end.
        for (int i = 0; i < 20000; ++i)
            Say(log, "text");
    });
    EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal;
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: " + path + ": Resource temporarily unavailable"});
}

TEST_F(ASyslogDaemon, GetsTheBeginningOfARecordThatIsTooLong) {
    Say(log, std::string(1024 * 1024, 'x'));
    EXPECT_EQ(Receive(),
              Header(30) + "info [Test] " + std::string(maxRecordBytes, 'x') + " [cut, 1048576 bytes in all]");
}

class SeveralThreads : public testing::Test {
protected:
    static constexpr int threads = 4;
    static constexpr int records = 250;

    static void LogAtOnce(LogChannel& log) {
        std::vector<std::thread> all;
        for (int thread = 0; thread < threads; ++thread)
            all.emplace_back([&log, thread] {
                for (int i = 0; i < records; ++i)
                    Say(log, std::to_string(thread) + " " + std::to_string(i));
            });
        for (std::thread& thread : all)
            thread.join();
    }

    /// Each thread's records whole and in its order.
    static void ExpectAll(const Lines& lines) {
        ASSERT_EQ(lines.size(), static_cast<std::size_t>(threads * records));
        std::map<std::string, int> next;
        for (const std::string& line : lines) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(line, match, std::regex(R"(.*info \[Test\] (\d) (\d+))"))) << line;
            EXPECT_EQ(match[2], std::to_string(next[match[1]]++));
        }
    }

    TemporaryFolder folder;
};

TEST_F(SeveralThreads, ShareALogFile) {
    const std::string path = folder.Path("gateway.log");
    LogChannel log(MakeFileSink(path, 10000, 100));
    LogAtOnce(log);
    Lines lines;
    for (int number = 99; number >= 0; --number)
        for (const std::string& line : LinesIn(number == 0 ? path : path + "." + std::to_string(number)))
            lines.push_back(line);
    ExpectAll(lines);
}

TEST_F(SeveralThreads, ShareStandardError) {
    const std::string path = folder.Write("stderr", "");
    const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    LogChannel log(MakeStderrSink(file));
    LogAtOnce(log);
    ::close(file);
    ExpectAll(LinesIn(path));
}

class SeveralThreadsAndASyslogDaemon : public ASyslogDaemon {};

TEST_F(SeveralThreadsAndASyslogDaemon, LoseNothingThatTheDaemonTakes) {
    constexpr int threads = 4;
    constexpr int records = 100;
    std::atomic<int> received{0};
    std::thread daemon([this, &received] {
        const std::regex whole(R"(<30>gateway-app\[\d+\]: info \[Test\] text \d)");
        for (std::string packet = Receive(); packet.find("the end") == std::string::npos; packet = Receive())
            received += std::regex_match(packet, whole) ? 1 : 0;
    });
    std::atomic<int> sent{0};
    std::vector<std::thread> all;
    for (int thread = 0; thread < threads; ++thread)
        all.emplace_back([this, thread, &sent, &received] {
            for (int i = 0; i < records; ++i) {
                Say(log, "text " + std::to_string(thread));
                // Never more under way than a socket queue takes.
                for (++sent; sent - received > 5;)
                    std::this_thread::yield();
            }
        });
    for (std::thread& thread : all)
        thread.join();
    Say(log, "the end");
    daemon.join();
    EXPECT_EQ(received, threads * records);
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
    EXPECT_EQ(Written({0, "Test", "Tick", "text"}), "trace [Test] Tick: text");
    EXPECT_EQ(Written({0, "Test", "Init", "(name=x)"}), "trace [Test] Init(name=x)");
    EXPECT_EQ(Written({0, "Test", "~Client", ""}), "trace [Test] ~Client");
    EXPECT_EQ(Written({0, "Test", "", "text"}), "trace [Test] text");
}

TEST_F(ARecord, EscapesTagAndText) {
    EXPECT_EQ(Written({1, "Test", "a\nb", "c\x1b[2J\xff"}), R"(debug [Test] a\x0ab: c\x1b[2J\xff)");
}

TEST_F(ARecord, OfExactlyTheMostBytesIsWhole) {
    const std::string text(maxRecordBytes, 'x');
    EXPECT_EQ(Written({2, "Test", "", text}), "info [Test] " + text);
    EXPECT_EQ(Written({2, "Test", "", text + "y"}), "info [Test] " + text + " [cut, 8193 bytes in all]");
}

TEST_F(ARecord, LongerThanTheMostBytesOnlyWithItsEscapesIsCutToo) {
    const std::string text(maxRecordBytes / 4 + 1, '\n');
    const std::string line = Written({2, "Test", "", text});
    EXPECT_EQ(line.size(), maxRecordBytes + std::strlen("info [Test]  [cut, 2049 bytes in all]"));
    EXPECT_NE(line.find("\\x0a [cut, 2049 bytes in all]"), std::string::npos);
}

TEST_F(ARecord, LeavesErrnoAlone) {
    LogChannel log(MakeFileSink("/nowhere/at/all", 100000, 3));
    errno = E2BIG;
    testing::internal::CaptureStderr();
    log.Write({2, "Test", "", "text"});
    const int after = errno;
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(after, E2BIG);
}

TEST_F(ARecord, OfACancelledThreadIsWrittenBeforeTheThreadEnds) {
    const auto log = Open(100000, 3);
    std::thread thread([&log] {
        ::pthread_cancel(::pthread_self());
        Say(*log, "last words");
        ::pthread_testcancel();
        Say(*log, "never said");
    });
    thread.join();
    EXPECT_EQ(LinesIn(path), Lines{"info [Test] last words"});
}

} // namespace
