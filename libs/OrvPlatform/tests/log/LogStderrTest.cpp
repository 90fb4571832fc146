// SPDX-License-Identifier: Apache-2.0
// Standard error as a pipe, a terminal or a socket whose reader does not read, or that is replaced at run time. A sink
// that waits for the reader is ended by the child's alarm.
#include "CommonUtils/Logger.h"
#include "support/LogLines.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <pty.h>
#include <regex>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace OrvPlatform;
using namespace OrvPlatform::Testing;

namespace {

/// What a process writes to, and where it is read.
struct Channel {
    const char* name;
    void (*open)(int& reader, int& writer);
};

void OpenPipe(int& reader, int& writer) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reader = ends[0];
    writer = ends[1];
}

void OpenTerminal(int& reader, int& writer) {
    ASSERT_EQ(::openpty(&reader, &writer, nullptr, nullptr, nullptr), 0) << "no pseudo-terminal";
    ::fcntl(reader, F_SETFD, FD_CLOEXEC);
    ::fcntl(writer, F_SETFD, FD_CLOEXEC);
}

template <int type>
void OpenSockets(int& reader, int& writer) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
    reader = ends[0];
    writer = ends[1];
}

/// All that there is to read, until nothing comes any more.
std::string Drain(int reader) {
    std::string text;
    std::array<char, 16384> buffer{};
    for (pollfd asked{reader, POLLIN, 0}; ::poll(&asked, 1, 50) > 0;) {
        const auto count = ::read(reader, buffer.data(), buffer.size());
        if (count <= 0)
            break;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

Lines LogLines(const std::string& text) {
    Lines lines;
    for (std::string line : SplitLines(text)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(WithoutTime(line));
    }
    return lines;
}

/// What comes until there are so many lines, and a little longer.
Lines NextLines(int reader, std::size_t count) {
    std::string text;
    OrvTest::WaitUntil([&] {
        text += Drain(reader);
        return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) >= count;
    });
    return LogLines(text);
}

/// While it lives, the process can open nothing more, so that the sink must make do with the descriptor it has.
class NoDescriptorToSpare {
public:
    NoDescriptorToSpare() {
        ::getrlimit(RLIMIT_NOFILE, &before);
        rlimit few = before;
        few.rlim_cur = 3;
        ::setrlimit(RLIMIT_NOFILE, &few);
        EXPECT_EQ(::open("/dev/null", O_RDONLY | O_CLOEXEC), -1);
    }
    ~NoDescriptorToSpare() { ::setrlimit(RLIMIT_NOFILE, &before); }
    NoDescriptorToSpare(const NoDescriptorToSpare&) = delete;
    NoDescriptorToSpare& operator=(const NoDescriptorToSpare&) = delete;

private:
    rlimit before{};
};

class StandardErrorOf : public testing::TestWithParam<Channel> {
protected:
    void SetUp() override { GetParam().open(reader, writer); }
    void TearDown() override {
        ::close(reader);
        ::close(writer);
    }

    /// In a child process, where a sink that waits is ended.
    static void Run(const std::function<void()>& body) {
        const Ended ended = RunInChild({}, [&body] {
            body();
            if (testing::Test::HasFailure())
                std::_Exit(1);
        });
        EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal << "\n" << ended.standardError;
    }

    /// More than any reader leaves room for, each as long as `bytes` or a little longer.
    static void SayTooMuch(LogChannel& log, std::size_t bytes) {
        for (std::size_t i = 0; i < TooMany(bytes); ++i)
            Say(log, std::to_string(i) + std::string(bytes, 'x') + "end");
    }

    /// Nothing but whole records in their order, and in the end the truth about how many are missing.
    void ExpectWholeRecordsAndTheCountOfTheOthers(LogChannel& log, std::size_t bytes) const {
        const std::regex record("info \\[Test\\] (\\d+)x{" + std::to_string(bytes) + "}end");
        const std::regex count("warning \\[Log\\] (\\d+) records? w.* lost before the previous one "
                               "\\(standard error: its reader does not keep up\\)");
        std::string text = Drain(reader);
        std::size_t said = TooMany(bytes);
        std::size_t accountedFor = 0;
        OrvTest::WaitUntil([&] {
            Say(log, "after");
            ++said;
            text += Drain(reader); // a terminal may need some time to have room again
            accountedFor = 0;
            std::size_t next = 0;
            for (const std::string& line : LogLines(text.substr(0, text.rfind('\n') + 1))) {
                std::smatch match;
                if (std::regex_match(line, match, count)) {
                    accountedFor += std::stoul(match[1]);
                    continue;
                }
                ++accountedFor;
                if (line == "info [Test] after")
                    continue;
                const bool whole = std::regex_match(line, match, record);
                EXPECT_TRUE(whole) << line;
                if (!whole)
                    return true;
                EXPECT_GE(std::stoul(match[1]), next);
                next = std::stoul(match[1]) + 1;
            }
            return accountedFor == said;
        });
        EXPECT_EQ(accountedFor, said);
        EXPECT_NE(text.find("were lost"), std::string::npos);
    }

    /// Together a megabyte, several times what the largest of these channels holds.
    static constexpr std::size_t TooMany(std::size_t bytes) { return 1'000'000 / bytes; }

    int reader = -1;
    int writer = -1;
};

INSTANTIATE_TEST_SUITE_P(Kinds, StandardErrorOf,
                         testing::Values(Channel{"APipe", OpenPipe}, Channel{"ATerminal", OpenTerminal},
                                         Channel{"AStreamSocket", OpenSockets<SOCK_STREAM>},
                                         Channel{"APacketSocket", OpenSockets<SOCK_SEQPACKET>}),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(StandardErrorOf, ThatNobodyReadsIsNotWaitedFor) {
    Run([this] {
        LogChannel log(MakeStderrSink(writer));
        SayTooMuch(log, 100);
        ExpectWholeRecordsAndTheCountOfTheOthers(log, 100);
    });
}

TEST_P(StandardErrorOf, ThatNobodyReadsIsNotWaitedForWithLongRecords) {
    Run([this] {
        LogChannel log(MakeStderrSink(writer));
        SayTooMuch(log, 7000);
        ExpectWholeRecordsAndTheCountOfTheOthers(log, 7000);
    });
}

#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
#define ORV_SANITIZER_TAKES_DESCRIPTORS // to look whether it may read an object's class, and calls it invalid without
#endif
#endif

TEST_P(StandardErrorOf, ThatNobodyReadsIsNotWaitedForWithoutAFreeDescriptor) {
#ifdef ORV_SANITIZER_TAKES_DESCRIPTORS
    GTEST_SKIP() << "the sanitizer needs descriptors itself";
#endif
    Run([this] {
        LogChannel log(MakeStderrSink(writer));
        {
            const NoDescriptorToSpare tight;
            Say(log, "first");
            EXPECT_EQ(NextLines(reader, 1), Lines{"info [Test] first"});
            SayTooMuch(log, 100);
        }
        ExpectWholeRecordsAndTheCountOfTheOthers(log, 100);
    });
}

TEST_P(StandardErrorOf, KeepsTheFlagsThatItSharesWithOtherPrograms) {
    const int before = ::fcntl(writer, F_GETFL);
    LogChannel log(MakeStderrSink(writer));
    Say(log, "text");
    EXPECT_EQ(::fcntl(writer, F_GETFL), before);
}

TEST_P(StandardErrorOf, KeepsTheOrderWithWhatTheProgramItselfWrites) {
    LogChannel log(MakeStderrSink(writer));
    Lines expected;
    std::string text;
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(::write(writer, "own\n", 4), 4);
        Say(log, std::to_string(i));
        expected.insert(expected.end(), {"own", "info [Test] " + std::to_string(i)});
    }
    EXPECT_EQ(NextLines(reader, expected.size()), expected);
}

TEST_P(StandardErrorOf, IsTakenAsItIsAtTheTimeOfTheRecord) {
    LogChannel log(MakeStderrSink(writer));
    Say(log, "before");
    int laterReader = -1;
    int laterWriter = -1;
    OpenPipe(laterReader, laterWriter);
    ASSERT_EQ(::dup2(laterWriter, writer), writer);
    Say(log, "after");
    EXPECT_EQ(NextLines(reader, 1), Lines{"info [Test] before"});
    EXPECT_EQ(NextLines(laterReader, 1), Lines{"info [Test] after"});
    // Nothing keeps the former one open: who reads it sees the end.
    pollfd asked{reader, POLLIN, 0};
    EXPECT_EQ(::poll(&asked, 1, 0), 1);
    EXPECT_NE(asked.revents & (POLLHUP | POLLIN | POLLRDHUP), 0);
    ::close(laterReader);
    ::close(laterWriter);
}

TEST_P(StandardErrorOf, MayBeClosedForATime) {
    Run([this] {
        LogChannel log(MakeStderrSink(writer));
        const int kept = ::dup(writer);
        ::close(writer);
        Say(log, "lost");
        ::dup2(kept, writer);
        Say(log, "after");
        EXPECT_EQ(NextLines(reader, 2).at(0), "info [Test] after");
    });
}

class StandardErrorOfAPipe : public StandardErrorOf {};
INSTANTIATE_TEST_SUITE_P(Only, StandardErrorOfAPipe, testing::Values(Channel{"APipe", OpenPipe}));

TEST_P(StandardErrorOfAPipe, LosesNothingOfABurstThatThePipeTakes) {
    LogChannel log(MakeStderrSink(writer));
    Lines expected;
    for (int i = 0; i < 400; ++i) {
        const std::string text = std::to_string(i) + std::string(100, 'x');
        Say(log, text);
        expected.push_back("info [Test] " + text);
    }
    EXPECT_EQ(NextLines(reader, expected.size()), expected);
}

TEST_P(StandardErrorOfAPipe, TakesALongRecordWholeOrNotAtAll) {
    // What another process writes into the pipe could otherwise stand in the middle of it.
    for (const std::size_t bytes : {4100U, 5000U, 6500U, 7000U, 8190U}) {
        LogChannel log(MakeStderrSink(writer));
        testing::internal::CaptureStderr();
        for (int i = 0; i < 20; ++i) {
            Say(log, std::string(bytes, 'x'));
            Say(log, "short");
        }
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(Drain(reader).back(), '\n') << bytes;
    }
}

TEST_P(StandardErrorOfAPipe, DoesNotHoldAForkUp) {
    Run([this] {
        ::dup2(writer, STDERR_FILENO);
        std::atomic<bool> done{false};
        std::thread other([&done] {
            for (std::size_t i = 0; i < 10'000 && !done; ++i)
                CommonUtils::Logger("L", 0).Error() << std::string(100, 'x');
        });
        for (int i = 0; i < 20; ++i) {
            const pid_t child = ::fork();
            if (child == 0)
                ::_exit(0);
            int status = -1;
            ::waitpid(child, &status, 0);
        }
        done = true;
        other.join();
    });
}

class StandardErrorOfATerminal : public StandardErrorOf {};
INSTANTIATE_TEST_SUITE_P(Only, StandardErrorOfATerminal, testing::Values(Channel{"ATerminal", OpenTerminal}));

TEST_P(StandardErrorOfATerminal, ThatAPersonHasStoppedIsNotWaitedFor) {
    Run([this] {
        LogChannel log(MakeStderrSink(writer));
        ASSERT_EQ(::tcflow(writer, TCOOFF), 0);
        Say(log, "lost");
        Say(log, "lost");
        ASSERT_EQ(::tcflow(writer, TCOON), 0);
        Say(log, "after");
        EXPECT_EQ(NextLines(reader, 2),
                  (Lines{"info [Test] after", "warning [Log] 2 records were lost before the previous one "
                                              "(standard error: its reader does not keep up)"}));
    });
}

/// A stream socket takes as much of a record as there is room for.
class ARecordThatASocketHasCutOff : public testing::Test {
protected:
    ARecordThatASocketHasCutOff() {
        OpenSockets<SOCK_STREAM>(reader, writer);
        const int little = 1;
        ::setsockopt(writer, SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
        log = std::make_unique<LogChannel>(MakeStderrSink(writer));
        Say(*log, std::string(8000, 'x'));
        begin = Drain(reader);
        EXPECT_EQ(begin.back(), 'x') << "the record is not cut off";
    }
    ~ARecordThatASocketHasCutOff() override {
        ::close(reader);
        ::close(writer);
    }

    int reader = -1;
    int writer = -1;
    std::string begin;
    std::unique_ptr<LogChannel> log;
};

TEST_F(ARecordThatASocketHasCutOff, IsFinishedBeforeTheNextOne) {
    std::string text = begin;
    while (text.find("after") == std::string::npos) {
        Say(*log, "after");
        const std::string more = Drain(reader);
        ASSERT_NE(more, "");
        text += more;
    }
    EXPECT_EQ(LogLines(text).at(0), "info [Test] " + std::string(8000, 'x'));
    EXPECT_EQ(LogLines(text).at(1), "info [Test] after");
}

TEST_F(ARecordThatASocketHasCutOff, IsNotFinishedElsewhereButCounted) {
    int laterReader = -1;
    int laterWriter = -1;
    OpenPipe(laterReader, laterWriter);
    ::dup2(laterWriter, writer);
    testing::internal::CaptureStderr();
    Say(*log, "after");
    Say(*log, "later");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "The log loses records: standard error was replaced in the middle of a record\n");
    EXPECT_EQ(NextLines(laterReader, 3), (Lines{"info [Test] after", "info [Test] later",
                                                "warning [Log] 1 record was lost before the previous one "
                                                "(standard error was replaced in the middle of a record)"}));
    ::close(laterReader);
    ::close(laterWriter);
}

TEST_F(ARecordThatASocketHasCutOff, IsFinishedByTheProcessThatBeganIt) {
    const Ended child = RunInChild({}, [this] {
        Say(*log, "after, in the child");
        std::fputs(Drain(reader).c_str(), stderr);
    });
    EXPECT_EQ(child.Lines(), Lines{"info [Test] after, in the child"});
    Say(*log, "after, in the parent");
    EXPECT_EQ(Drain(reader).front(), 'x');
}

// A 32-bit processor with 32-bit times could not look at it.
TEST(StandardErrorInAFile, MayHaveADateBeyond2038) {
    const TemporaryFolder folder;
    const std::string path = folder.Path("out");
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_EQ(std::system(("touch -d 2040-01-01 " + path).c_str()), 0); // NOLINT(concurrency-mt-unsafe)
    LogChannel log(MakeStderrSink(file));
    Say(log, "text");
    ::close(file);
    EXPECT_EQ(LinesIn(path), Lines{"info [Test] text"});
}

TEST(StandardErrorOnAFullDisk, CostsTheRecordsOnly) {
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    const Ended ended = RunInChild({}, [full] {
        LogChannel log(MakeStderrSink(full));
        Say(log, "lost");
    });
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: standard error: No space left on device"});
    ::close(full);
}

} // namespace
