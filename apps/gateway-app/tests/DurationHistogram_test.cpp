// SPDX-License-Identifier: Apache-2.0
#include "DurationHistogram.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

TEST(AHistogram, IsEmptyAtFirst) {
    EXPECT_EQ(DurationHistogram().Json(), R"({"count":0,"longest_us":0,"below_us":{}})");
}

TEST(AHistogram, CountsADurationInTheClassAboveIt) {
    DurationHistogram histogram;
    for (const auto duration : {0us, 15us, 16us, 31us, 32us})
        histogram.Add(duration);
    EXPECT_EQ(histogram.Json(), R"({"count":5,"longest_us":32,"below_us":{"16":2,"32":2,"64":1}})");
}

TEST(AHistogram, KeepsTheLongest) {
    DurationHistogram histogram;
    histogram.Add(5ms);
    histogram.Add(1ms);
    EXPECT_EQ(histogram.Longest(), 5ms);
    EXPECT_EQ(histogram.Count(), 2U);
}

TEST(AHistogram, HasAClassForEverythingBeyond) {
    DurationHistogram histogram;
    histogram.Add(1h);
    EXPECT_EQ(histogram.Json(), R"({"count":1,"longest_us":3600000000,"below_us":{"more":1}})");
}

} // namespace
} // namespace GatewayApp
