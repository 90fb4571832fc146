// SPDX-License-Identifier: Apache-2.0
#include "log/LogLayout.h"

#include <ctime>
#include <gtest/gtest.h>

namespace OrvPlatform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;

std::string TimeText(Clock::duration sinceEpoch) {
    std::string line = "before ";
    AppendTime(Clock::time_point(sinceEpoch), line);
    return line.substr(7);
}

TEST(ATimeInTheLog, IsInUtcWithMilliseconds) {
    EXPECT_EQ(TimeText(0s), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(TimeText(1ms), "1970-01-01T00:00:00.001Z");
    EXPECT_EQ(TimeText(1700000000s + 999ms + 999us), "2023-11-14T22:13:20.999Z");
    EXPECT_EQ(TimeText(-1ms), "1969-12-31T23:59:59.999Z");
}

TEST(ATimeInTheLog, KnowsLeapDaysAndTimesBeyondThe32ndBit) {
    EXPECT_EQ(TimeText(951782400s), "2000-02-29T00:00:00.000Z");
    EXPECT_EQ(TimeText(951868799s), "2000-02-29T23:59:59.000Z");
    EXPECT_EQ(TimeText(951868800s), "2000-03-01T00:00:00.000Z");
    EXPECT_EQ(TimeText(2147483648s), "2038-01-19T03:14:08.000Z");
    EXPECT_EQ(TimeText(4107542399s), "2100-02-28T23:59:59.000Z");
    EXPECT_EQ(TimeText(4107542400s), "2100-03-01T00:00:00.000Z");
}

TEST(ATimeInTheLog, IsTheSameAsTheCLibrarysOnEachDayOfACentury) {
    constexpr int days = 36525;
    for (int day = 0; day < days; ++day) {
        const std::time_t seconds = std::time_t{86400} * day / (sizeof(std::time_t) == 4 ? 2 : 1) + 43210;
        std::tm parts{};
        char expected[40];
        gmtime_r(&seconds, &parts);
        std::strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%S.000Z", &parts);
        ASSERT_EQ(TimeText(std::chrono::seconds(seconds)), expected);
    }
}

TEST(ARecordInTheLog, IsLedByItsLevelAndLogger) {
    std::string line = "<6>";
    AppendRecord(LogLevel::WARNING, "Name", "text", line);
    EXPECT_EQ(line, "<6>warning [Name] text");
}

} // namespace
} // namespace OrvPlatform
