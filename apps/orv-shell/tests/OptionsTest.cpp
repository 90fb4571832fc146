// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include "Loop.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace OrvShell;
using namespace std::chrono_literals;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

class AStart : public testing::Test {
protected:
    std::optional<int> Read(std::vector<std::string> words, bool mayCheck = true) {
        words.insert(words.begin(), "orv-shell");
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        CaptureStdout();
        CaptureStderr();
        const auto status = ReadOptions(static_cast<int>(words.size()), arguments.data(),
                                        {"orv-shell", "the help\n", "orv-shell 7"}, mayCheck, read);
        printed = GetCapturedStdout();
        complaint = GetCapturedStderr();
        return status;
    }

    Options read;
    std::string printed;
    std::string complaint;
};

TEST_F(AStart, MayBeEmpty) {
    EXPECT_EQ(Read({}), std::nullopt);
    EXPECT_EQ(read.scenario, "");
    EXPECT_EQ(read.tick, 100ms);
    EXPECT_FALSE(read.isCheckOnly);
}

TEST_F(AStart, NamesAScenarioBeforeOrBehindItsOptions) {
    EXPECT_EQ(Read({"--tick", "2s", "outage.orv", "--check"}), std::nullopt);
    EXPECT_EQ(read.scenario, "outage.orv");
    EXPECT_EQ(read.tick, 2s);
    EXPECT_TRUE(read.isCheckOnly);
    EXPECT_EQ(complaint, "");
}

TEST_F(AStart, NamesAScenarioThatLooksLikeAnOption) {
    EXPECT_EQ(Read({"--tick=0", "--", "--check"}), std::nullopt);
    EXPECT_EQ(read.scenario, "--check");
    EXPECT_EQ(read.tick, 0ms);
}

TEST_F(AStart, AsksForHelp) {
    for (const char* word : {"-h", "--help"}) {
        EXPECT_EQ(Read({word}), Loop::SUCCESS);
        EXPECT_EQ(printed, "the help\n");
    }
}

TEST_F(AStart, AsksForTheVersion) {
    EXPECT_EQ(Read({"--version"}), Loop::SUCCESS);
    EXPECT_EQ(printed, "orv-shell 7\n");
}

TEST_F(AStart, WithAnUnknownOptionIsRefused) {
    EXPECT_EQ(Read({"--nonsense"}), Loop::USAGE);
    EXPECT_EQ(complaint, "orv-shell: unrecognized option '--nonsense'\norv-shell --help shows what can be said\n");
}

TEST_F(AStart, WithoutTheTimeBetweenTicksIsRefused) {
    EXPECT_EQ(Read({"--tick"}), Loop::USAGE);
    EXPECT_EQ(complaint, "orv-shell: option '--tick' requires an argument\norv-shell --help shows what can be said\n");
}

TEST_F(AStart, WithATimeThatIsNoneIsRefused) {
    EXPECT_EQ(Read({"--tick", "soon"}), Loop::USAGE);
    EXPECT_EQ(complaint.rfind("orv-shell: not a duration: soon", 0), 0) << complaint;
}

TEST_F(AStart, WithTwoScenariosIsRefused) {
    EXPECT_EQ(Read({"one.orv", "two.orv"}), Loop::USAGE);
    EXPECT_EQ(complaint, "orv-shell: one scenario at a time, and not two.orv besides\n"
                         "orv-shell --help shows what can be said\n");
}

TEST_F(AStart, ThatChecksNothingIsRefused) {
    EXPECT_EQ(Read({"--check"}), Loop::USAGE);
    EXPECT_EQ(complaint, "orv-shell: --check needs a scenario\norv-shell --help shows what can be said\n");
}

TEST_F(AStart, OfAProgramThatDoesNotCheckIsRefusedWhenItSaysSo) {
    EXPECT_EQ(Read({"--check", "one.orv"}, false), Loop::USAGE);
    EXPECT_EQ(complaint, "orv-shell: unrecognized option '--check'\norv-shell --help shows what can be said\n");
}

} // namespace
