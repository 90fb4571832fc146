// SPDX-License-Identifier: Apache-2.0
// Standard error as a pipe, a terminal or a socket whose reader does not read, or that is replaced at run time. A sink
// that waits for the reader is ended by the child's alarm.
#include "CommonUtils/Logger.h"
#include "log/StandardErrorEnds.h"
#include "support/Pattern.h"

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
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
    static void LogTooMuch(LogChannel& log, std::size_t bytes) {
        for (std::size_t i = 0; i < TooMany(bytes); ++i)
            LogInfo(log, std::to_string(i) + std::string(bytes, 'x') + "end");
    }

    /// Nothing but whole records in their order, and in the end the truth about how many are missing.
    void ExpectWholeRecordsAndTheCountOfTheOthers(LogChannel& log, std::size_t bytes) const {
        const OrvTest::Pattern record("info \\[Test\\] (\\d+)x{" + std::to_string(bytes) + "}end");
        const OrvTest::Pattern count("warning \\[Log\\] (\\d+) records? w.* lost before the previous one "
                                     "\\(standard error: its reader does not keep up\\)");
        std::string text = Drain(reader);
        std::size_t said = TooMany(bytes);
        std::size_t accountedFor = 0;
        OrvTest::WaitUntil([&] {
            LogInfo(log, "after");
            ++said;
            text += Drain(reader); // a terminal may need some time to have room again
            accountedFor = 0;
            std::size_t next = 0;
            for (const std::string& line : LogLines(text.substr(0, text.rfind('\n') + 1))) {
                if (const auto lost = count.Match(line); !lost.empty()) {
                    accountedFor += std::stoul(lost[1]);
                    continue;
                }
                ++accountedFor;
                if (line == "info [Test] after")
                    continue;
                const auto whole = record.Match(line);
                EXPECT_FALSE(whole.empty()) << line;
                if (whole.empty())
                    return true;
                EXPECT_GE(std::stoul(whole[1]), next);
                next = std::stoul(whole[1]) + 1;
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
        LogTooMuch(log, 100);
        ExpectWholeRecordsAndTheCountOfTheOthers(log, 100);
    });
}

TEST_P(StandardErrorOf, ThatNobodyReadsIsNotWaitedForWithLongRecords) {
    Run([this] {
        LogChannel log(MakeStderrSink(writer));
        LogTooMuch(log, 7000);
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
            LogInfo(log, "first");
            EXPECT_EQ(NextLines(reader, 1), Lines{"info [Test] first"});
            LogTooMuch(log, 100);
        }
        ExpectWholeRecordsAndTheCountOfTheOthers(log, 100);
    });
}

TEST_P(StandardErrorOf, KeepsTheFlagsThatItSharesWithOtherPrograms) {
    const int before = ::fcntl(writer, F_GETFL);
    LogChannel log(MakeStderrSink(writer));
    LogInfo(log, "text");
    EXPECT_EQ(::fcntl(writer, F_GETFL), before);
}

TEST_P(StandardErrorOf, KeepsTheOrderWithWhatTheProgramItselfWrites) {
    LogChannel log(MakeStderrSink(writer));
    Lines expected;
    std::string text;
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(::write(writer, "own\n", 4), 4);
        LogInfo(log, std::to_string(i));
        expected.insert(expected.end(), {"own", "info [Test] " + std::to_string(i)});
    }
    EXPECT_EQ(NextLines(reader, expected.size()), expected);
}

TEST_P(StandardErrorOf, IsTakenAsItIsAtTheTimeOfTheRecord) {
    LogChannel log(MakeStderrSink(writer));
    LogInfo(log, "before");
    int laterReader = -1;
    int laterWriter = -1;
    OpenPipe(laterReader, laterWriter);
    ASSERT_EQ(::dup2(laterWriter, writer), writer);
    LogInfo(log, "after");
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
        LogInfo(log, "lost");
        ::dup2(kept, writer);
        LogInfo(log, "after");
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
        LogInfo(log, text);
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
            LogInfo(log, std::string(bytes, 'x'));
            LogInfo(log, "short");
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
        LogInfo(log, "lost");
        LogInfo(log, "lost");
        ASSERT_EQ(::tcflow(writer, TCOON), 0);
        LogInfo(log, "after");
        EXPECT_EQ(NextLines(reader, 2),
                  (Lines{"info [Test] after", "warning [Log] 2 records were lost before the previous one "
                                              "(standard error: its reader does not keep up)"}));
    });
}

} // namespace
