// SPDX-License-Identifier: Apache-2.0
#include "BackOff.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

TEST(ABackOff, DoublesUpToItsLimit) {
    BackOff backOff(500ms, 3s, [] { return 0.0; });
    for (const auto expected : {500ms, 1000ms, 2000ms, 3000ms, 3000ms})
        EXPECT_EQ(backOff.Next(), expected);
}

TEST(ABackOff, IsUpToHalfShorterByChance) {
    BackOff backOff(1000ms, 8s, [] { return 0.5; });
    EXPECT_EQ(backOff.Next(), 750ms);
    EXPECT_EQ(backOff.Next(), 1500ms);
    BackOff shortest(1000ms, 8s, [] { return 0.999999; });
    EXPECT_GE(shortest.Next(), 500ms);
}

TEST(ABackOff, WaitsAnyPartOfALimitBeforeTheFirstAttempt) {
    double chance = 0.0;
    BackOff backOff(500ms, 8s, [&] { return chance; });
    backOff.Next();
    backOff.Next();
    EXPECT_EQ(backOff.First(2s), 0ms);
    EXPECT_EQ(backOff.Next(), 500ms);
    chance = 0.75;
    EXPECT_EQ(backOff.First(2s), 1500ms);
    chance = 0.999999;
    EXPECT_LT(backOff.First(2s), 2s);
}

TEST(ABackOff, BeginsAnewAfterASuccess) {
    BackOff backOff(500ms, 3s, [] { return 0.0; });
    backOff.Next();
    backOff.Next();
    backOff.Reset();
    EXPECT_EQ(backOff.Next(), 500ms);
}

} // namespace
} // namespace GatewayApp
