// SPDX-License-Identifier: Apache-2.0
#include "DurationHistogram.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

TEST(AHistogram, IsEmptyAtFirst) {
    EXPECT_EQ(DurationHistogram().Json(), R"({"count":0,"longest_us":0,"longest_cpu_us":0,"below_us":{}})");
}

TEST(AHistogram, CountsADurationInTheClassAboveIt) {
    DurationHistogram histogram;
    for (const auto duration : {0us, 15us, 16us, 31us, 32us})
        histogram.Add(duration, 0us);
    EXPECT_EQ(histogram.Json(), R"({"count":5,"longest_us":32,"longest_cpu_us":0,"below_us":{"16":2,"32":2,"64":1}})");
}

TEST(AHistogram, KeepsTheLongestAndItsTimeOnTheProcessor) {
    DurationHistogram histogram;
    histogram.Add(5ms, 2ms);
    histogram.Add(1ms, 1ms);
    EXPECT_EQ(histogram.Longest(), 5ms);
    EXPECT_EQ(histogram.Count(), 2U);
    EXPECT_EQ(histogram.Json(),
              R"({"count":2,"longest_us":5000,"longest_cpu_us":2000,"below_us":{"1024":1,"8192":1}})");
}

TEST(AHistogram, HasAClassForEverythingBeyond) {
    DurationHistogram histogram;
    histogram.Add(1h, 1s);
    EXPECT_EQ(histogram.Json(),
              R"({"count":1,"longest_us":3600000000,"longest_cpu_us":1000000,"below_us":{"more":1}})");
}

} // namespace
} // namespace GatewayApp
