// SPDX-License-Identifier: Apache-2.0
#include "SignsOfLife.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

TEST(AKeepAliveOfASecond, IsTheQuickOne) {
    const KeepAlive quick;
    EXPECT_EQ(quick.Period(), 1s);
    EXPECT_EQ(quick.UserTimeout(), 3s);
    EXPECT_EQ(quick.Silence(), 2500ms);
    EXPECT_EQ(quick.AnswerTime(), 1100ms);
    EXPECT_EQ(quick.QuickPace(), 100ms);
    EXPECT_EQ(quick.UsualPace(), 250ms);
    EXPECT_EQ(quick.Interval(), 1s);
}

TEST(AKeepAliveOfHalfAMinute, GivesAModemTimeToWakeUp) {
    const KeepAlive cheap(30s);
    EXPECT_EQ(cheap.UserTimeout(), 40s);
    EXPECT_EQ(cheap.Silence(), 37500ms);
    EXPECT_GT(cheap.AnswerTime(), 31500ms);
    EXPECT_EQ(cheap.Interval(), 2s);
}

TEST(AKeepAlive, LeavesTimeForSeveralQuestions) {
    for (const auto period : {1s, 2s, 5s, 60s, 600s}) {
        const KeepAlive keepAlive(period);
        EXPECT_GE((keepAlive.Silence() - keepAlive.AnswerTime()) / keepAlive.QuickPace(), 6) << period.count();
        EXPECT_LT(keepAlive.Silence(), keepAlive.UserTimeout());
    }
}

TEST(AKeepAliveOfASecond, LeavesTimeForThreeAnswersOfAPeerThatAnswersOnceInHalfASecond) {
    const KeepAlive quick;
    EXPECT_GT(quick.Silence(), quick.AnswerTime() + 2 * 500ms);
    EXPECT_GT(quick.UserTimeout(), quick.AnswerTime() + 2 * 500ms);
}

} // namespace
} // namespace GatewayApp
