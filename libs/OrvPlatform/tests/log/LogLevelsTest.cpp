// SPDX-License-Identifier: Apache-2.0
#include "log/LogLevels.h"

#include <gtest/gtest.h>

using OrvPlatform::ApplyLogLevels;
using OrvPlatform::LogLevel;
using OrvPlatform::LogLevels;
using Words = std::vector<std::string>;

namespace {

class AListOfLevels : public testing::Test {
protected:
    LogLevels levels;
};

TEST_F(AListOfLevels, TakesNamesInAnyCaseAndNumbers) {
    const char* words[] = {"trace", "Debug", "INFO", "warning", "error", "critical", "off"};
    for (int level = 0; level <= 6; ++level) {
        EXPECT_EQ(ApplyLogLevels(words[level], levels), Words{});
        EXPECT_EQ(static_cast<int>(levels.level), level);
        levels.level = level == 0 ? LogLevel::OFF : LogLevel::TRACE;
        EXPECT_EQ(ApplyLogLevels(std::to_string(level), levels), Words{});
        EXPECT_EQ(static_cast<int>(levels.level), level);
    }
    EXPECT_EQ(ApplyLogLevels("warn", levels), Words{});
    EXPECT_EQ(levels.level, LogLevel::WARNING);
    EXPECT_EQ(ApplyLogLevels("err", levels), Words{});
    EXPECT_EQ(levels.level, LogLevel::ERROR);
}

TEST_F(AListOfLevels, SetsSingleLoggersApart) {
    EXPECT_EQ(ApplyLogLevels(" error , OrvRoute = trace,Other=off", levels), Words{});
    EXPECT_EQ(levels.Of("OrvRoute"), LogLevel::TRACE);
    EXPECT_EQ(levels.Of("Other"), LogLevel::OFF);
    EXPECT_EQ(levels.Of("orvroute"), LogLevel::ERROR);
    EXPECT_EQ(levels.Text(), "error,OrvRoute=trace,Other=off");
}

TEST_F(AListOfLevels, TakesALoggersNameOfUpTo64Bytes) {
    const std::string name(64, 'x');
    EXPECT_EQ(ApplyLogLevels(name + "=info", levels), Words{});
    EXPECT_EQ(levels.Of(name), LogLevel::INFO);
    EXPECT_EQ(ApplyLogLevels(name + "x=info", levels).size(), 1U);
}

TEST_F(AListOfLevels, LetsTheLaterItemWin) {
    ApplyLogLevels("debug,A=info", levels);
    ApplyLogLevels("A=error", levels);
    EXPECT_EQ(levels.Text(), "debug,A=error");
}

TEST_F(AListOfLevels, NamesWhatItCannotReadAndAppliesTheRest) {
    EXPECT_EQ(ApplyLogLevels("loud,7,-1,=info,A=,A=7,,debug", levels),
              (Words{"loud", "7", "-1", "=info", "A=", "A=7", ""}));
    EXPECT_EQ(ApplyLogLevels("A b=info", levels), Words{"A b=info"});
    EXPECT_EQ(ApplyLogLevels("A\x01=info", levels), Words{"A\x01=info"});
    const std::string withNul("A\0=info", 7);
    EXPECT_EQ(ApplyLogLevels(withNul, levels), Words{withNul});
    EXPECT_EQ(levels.Text(), "debug");
}

} // namespace
