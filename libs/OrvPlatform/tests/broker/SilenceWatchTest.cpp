// SPDX-License-Identifier: Apache-2.0
#include "broker/SilenceWatch.h"

#include <gtest/gtest.h>

#include <chrono>

namespace OrvPlatform {

using namespace std::chrono_literals;

class ASilenceWatch : public testing::Test {
protected:
    ASilenceWatch() { watch.Begin(now); }

    void ServeAfter(std::chrono::milliseconds pause) {
        now += pause;
        watch.Served(now);
    }

    std::chrono::steady_clock::duration LossAfter(std::chrono::milliseconds pause) {
        now += pause;
        return watch.BeforeLoss(now);
    }

    SilenceWatch watch{4s};
    SilenceWatch::Time now{1000s};
};

TEST_F(ASilenceWatch, CountsFromOneAndAHalfTimesTheKeepAliveOn) {
    ServeAfter(1s);
    EXPECT_EQ(LossAfter(5999ms), 0ms);
    EXPECT_EQ(LossAfter(1ms), 6s);
}

TEST_F(ASilenceWatch, RemembersForAMomentASilenceThatEndedTooLate) {
    ServeAfter(7s);
    ServeAfter(10ms);
    EXPECT_EQ(LossAfter(1989ms), 7s);
    EXPECT_EQ(LossAfter(1ms), 0s) << "the broker has forgiven it";
}

TEST_F(ASilenceWatch, BeginsAnewWithEachConnection) {
    ServeAfter(7s);
    now += 3600s;
    watch.Begin(now);
    EXPECT_EQ(LossAfter(1s), 0s);
}

} // namespace OrvPlatform
