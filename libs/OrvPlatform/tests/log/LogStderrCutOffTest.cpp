// SPDX-License-Identifier: Apache-2.0
// Standard error that takes a part of a record only, or none of it, or is a file.
#include "log/StandardErrorEnds.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

using namespace OrvPlatform;
using namespace OrvPlatform::Testing;

namespace {

/// A stream socket takes as much of a record as there is room for.
class ARecordThatASocketHasCutOff : public testing::Test {
protected:
    ARecordThatASocketHasCutOff() {
        OpenSockets<SOCK_STREAM>(reader, writer);
        const int little = 1;
        ::setsockopt(writer, SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
        log = std::make_unique<LogChannel>(MakeStderrSink(writer));
        LogInfo(*log, std::string(8000, 'x'));
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
        LogInfo(*log, "after");
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
    LogInfo(*log, "after");
    LogInfo(*log, "later");
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
        LogInfo(*log, "after, in the child");
        std::fputs(Drain(reader).c_str(), stderr);
    });
    EXPECT_EQ(child.Lines(), Lines{"info [Test] after, in the child"});
    LogInfo(*log, "after, in the parent");
    EXPECT_EQ(Drain(reader).front(), 'x');
}

// A 32-bit processor with 32-bit times could not look at it.
TEST(StandardErrorInAFile, MayHaveADateBeyond2038) {
    const TemporaryFolder folder;
    const std::string path = folder.Path("out");
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_EQ(std::system(("touch -d 2040-01-01 " + path).c_str()), 0); // NOLINT(concurrency-mt-unsafe)
    LogChannel log(MakeStderrSink(file));
    LogInfo(log, "text");
    ::close(file);
    EXPECT_EQ(LinesIn(path), Lines{"info [Test] text"});
}

TEST(StandardErrorOnAFullDisk, CostsTheRecordsOnly) {
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    const Ended ended = RunInChild({}, [full] {
        LogChannel log(MakeStderrSink(full));
        LogInfo(log, "lost");
    });
    EXPECT_EQ(ended.Lines(), Lines{"The log loses records: standard error: No space left on device"});
    ::close(full);
}

} // namespace
