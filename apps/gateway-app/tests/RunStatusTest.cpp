// SPDX-License-Identifier: Apache-2.0
#include "RunStatus.h"

#include "ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

namespace GatewayApp {
namespace {

std::string Content(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class AStatusToTell : public testing::Test {
protected:
    AStatusToTell() {
        status.name = "alarm";
        status.cloudState = "connected";
        status.cloudPath = "cellular";
        status.cloudReason = "connected over wwan0";
        status.cloudSince = {"2026-01-02T03:04:05.000Z", 12.5};
    }
    bool Has(const std::string& text) const {
        return status.Json({"2026-01-02T03:04:06.000Z", 13.5}).find(text) != std::string::npos;
    }
    RunStatus status;
};

TEST_F(AStatusToTell, HasAVersionAProcessAndBothClocks) {
    EXPECT_TRUE(Has("{\"version\":1,\"program\":\"gateway-app\",\"name\":\"alarm\",\"pid\":" +
                    std::to_string(getpid()) + ",\"process_start\":"));
    EXPECT_FALSE(Has("\"process_start\":null"));
    EXPECT_TRUE(Has("\"written\":\"2026-01-02T03:04:06.000Z\",\"written_monotonic\":13.500"));
    EXPECT_TRUE(
        Has("\"since\":\"2026-01-02T03:04:05.000Z\",\"since_monotonic\":12.500,\"reason\":\"connected over wwan0\""));
}

TEST_F(AStatusToTell, HasItsProcessLaterWhereItCouldNotBeSeenAtFirst) {
#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
    GTEST_SKIP() << "the sanitizer needs descriptors of its own, and takes an object for a wrong one without";
#endif
#endif
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    const std::string first = RunStatus().Json(Moment::Now());
    setrlimit(RLIMIT_NOFILE, &before);
    if (first.find("\"process_start\":null") == std::string::npos)
        GTEST_SKIP() << "it is known already";
    EXPECT_EQ(RunStatus().Json(Moment::Now()).find("\"process_start\":null"), std::string::npos);
}

TEST_F(AStatusToTell, SaysWhatItDoesNotKnow) {
    EXPECT_TRUE(Has("\"last_move\":null"));
    EXPECT_TRUE(Has("\"broker_losses\":null"));
    status.pokes.push_front({{}, "ethernet", false, std::nullopt, std::nullopt, "no answer", "a look"});
    EXPECT_TRUE(Has("\"result\":\"failed\",\"code\":null,\"at_most_s\":null,\"text\":\"no answer\""));
}

TEST_F(AStatusToTell, HasTheLastMove) {
    status.lastMove = RunStatus::Move{{"2026-01-02T03:04:05.000Z", 1}, "ethernet", "cellular", "why \"so\"", 12.04};
    EXPECT_TRUE(Has("\"from\":\"ethernet\",\"to\":\"cellular\",\"reason\":\"why \\\"so\\\"\",\"took_s\":12.040"));
}

TEST(AGrowingCount, DoesNotCountWhatWasThereBefore) {
    GrowingCount count;
    count.Observe(1000);
    EXPECT_EQ(count.Value(), 0U);
    count.Observe(1500);
    EXPECT_EQ(count.Value(), 500U);
}

TEST(AGrowingCount, GoesOnWhenItsInterfaceIsMadeAnew) {
    GrowingCount count;
    count.Observe(1000);
    count.Observe(1500);
    count.Observe(20);
    EXPECT_EQ(count.Value(), 520U);
}

class AFileThatIsReplaced : public testing::Test {
protected:
    const OrvPlatform::Testing::TemporaryFolder folder;
    const std::string path = folder.Path("status.json");
};

TEST_F(AFileThatIsReplaced, IsThereForEverybodyToRead) {
    ASSERT_EQ(ReplaceFile(path, "one\n"), "");
    EXPECT_EQ(Content(path), "one\n");
    ASSERT_EQ(ReplaceFile(path, "two\n"), "");
    EXPECT_EQ(Content(path), "two\n");
    EXPECT_NE(access((path + ".new").c_str(), F_OK), 0);
}

TEST_F(AFileThatIsReplaced, StaysWholeForWhoHasItOpen) {
    ASSERT_EQ(ReplaceFile(path, "one\n"), "");
    std::ifstream reader(path);
    ASSERT_EQ(ReplaceFile(path, "another text\n"), "");
    std::string line;
    std::getline(reader, line);
    EXPECT_EQ(line, "one");
}

TEST_F(AFileThatIsReplaced, DoesNotLeadToAnotherFile) {
    const std::string other = folder.Write("other", "precious");
    ASSERT_EQ(symlink(other.c_str(), (path + ".new").c_str()), 0);
    ASSERT_EQ(ReplaceFile(path, "one\n"), "");
    EXPECT_EQ(Content(other), "precious");
    EXPECT_EQ(Content(path), "one\n");
}

TEST_F(AFileThatIsReplaced, SaysWhyItCannotBe) {
    EXPECT_NE(ReplaceFile(folder.Path("missing/status.json"), "one\n").find("No such file or directory"),
              std::string::npos);
}

} // namespace
} // namespace GatewayApp
