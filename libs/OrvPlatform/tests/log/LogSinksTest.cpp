// SPDX-License-Identifier: Apache-2.0
#include "support/LogLines.h"
#include "support/Pattern.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace OrvPlatform;
using namespace OrvPlatform::Testing;

namespace {

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
    LogInfo(log, "text");
    char buffer[200] = {};
    const auto count = ::read(ends[0], buffer, sizeof buffer);
    EXPECT_EQ(WithoutTime(std::string(buffer, static_cast<std::size_t>(count))), "info [Test] text\n");
}

class StandardErrorToTheJournal : public StandardError {
protected:
    /// As the service manager sets it for what it starts.
    static void NameJournal(int descriptor) {
        struct stat status = {};
        ASSERT_EQ(::fstat(descriptor, &status), 0);
        const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
        ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    }
    ~StandardErrorToTheJournal() override { ::unsetenv("JOURNAL_STREAM"); }
    std::string Received() const {
        char buffer[1000] = {};
        const auto count = ::read(ends[0], buffer, sizeof buffer);
        return std::string(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
};

TEST_F(StandardErrorToTheJournal, HasEachLinesPriorityBeforeIt) {
    NameJournal(ends[1]);
    LogChannel log(MakeStderrSink(ends[1]));
    const char* const priorities[] = {"<7>", "<7>", "<6>", "<4>", "<3>", "<2>"};
    for (int level = 0; level <= 5; ++level) {
        log.Write({LogLevelFrom(level), "Test", "", "text"});
        const std::string line = Received();
        EXPECT_EQ(line.substr(0, 3), priorities[level]) << line;
        EXPECT_EQ(line.substr(3, 2), "20") << line; // the time follows
    }
}

TEST_F(StandardErrorToTheJournal, IsPlainWhenItWasLedElsewhere) {
    int other[2] = {-1, -1};
    ASSERT_EQ(::pipe2(other, O_CLOEXEC), 0);
    NameJournal(other[1]);
    LogChannel log(MakeStderrSink(ends[1]));
    LogInfo(log, "text");
    EXPECT_EQ(WithoutTime(Received()), "info [Test] text\n");
    ::close(other[0]);
    ::close(other[1]);
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
        LogInfo(log, "lost");
    });
    EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal;
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: standard error: Broken pipe"});
}

TEST_F(StandardErrorWithoutAReader, LeavesThePipeSignalAsTheProgramHasIt) {
    const Ended ended = RunInChild({}, [this] {
        std::signal(SIGPIPE, SIG_DFL);
        LogChannel log(MakeStderrSink(ends[1]));
        LogInfo(log, "lost");
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
        log.Write({LogLevelFrom(level), "Test", "Tag", "text"});
        EXPECT_EQ(Receive(), Header(3 * 8 + severities[level]) + words[level] + " [Test] Tag: text");
    }
}

TEST_F(ASyslogDaemon, IsFoundAgainAfterItsRestart) {
    LogInfo(log, "before");
    EXPECT_EQ(Receive(), Header(30) + "info [Test] before");
    Stop();
    Start();
    LogInfo(log, "after");
    EXPECT_EQ(Receive(), Header(30) + "info [Test] after");
}

TEST_F(ASyslogDaemon, ThatIsGoneCostsTheRecordsOnly) {
    const Ended ended = RunInChild({}, [this] {
        Stop();
        LogInfo(log, "lost");
        LogInfo(log, "lost");
        Start();
        LogInfo(log, "after");
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
            LogInfo(log, "text");
    });
    EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal;
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: " + path + ": Resource temporarily unavailable"});
}

TEST_F(ASyslogDaemon, GetsTheBeginningOfARecordThatIsTooLong) {
    LogInfo(log, std::string(1024 * 1024, 'x'));
    EXPECT_EQ(Receive(),
              Header(30) + "info [Test] " + std::string(MAX_RECORD_BYTES, 'x') + " [cut, 1048576 bytes in all]");
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
                    LogInfo(log, std::to_string(thread) + " " + std::to_string(i));
            });
        for (std::thread& thread : all)
            thread.join();
    }

    /// Each thread's records whole and in its order.
    static void ExpectAll(const Lines& lines) {
        ASSERT_EQ(lines.size(), static_cast<std::size_t>(threads * records));
        const OrvTest::Pattern record(R"(.*info \[Test\] (\d) (\d+))");
        std::map<std::string, int> next;
        for (const std::string& line : lines) {
            const auto match = record.Match(line);
            ASSERT_FALSE(match.empty()) << line;
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
        const OrvTest::Pattern whole(R"(<30>gateway-app\[\d+\]: info \[Test\] text \d)");
        for (std::string packet = Receive(); packet.find("the end") == std::string::npos; packet = Receive())
            received += whole.Matches(packet) ? 1 : 0;
    });
    std::atomic<int> sent{0};
    std::vector<std::thread> all;
    for (int thread = 0; thread < threads; ++thread)
        all.emplace_back([this, thread, &sent, &received] {
            for (int i = 0; i < records; ++i) {
                LogInfo(log, "text " + std::to_string(thread));
                // Never more under way than a socket queue takes.
                for (++sent; sent - received > 5;)
                    std::this_thread::yield();
            }
        });
    for (std::thread& thread : all)
        thread.join();
    LogInfo(log, "the end");
    daemon.join();
    EXPECT_EQ(received, threads * records);
}

} // namespace
