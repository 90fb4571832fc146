// SPDX-License-Identifier: Apache-2.0
#include "DurationHistogram.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

TEST(AHistogram, IsEmptyAtFirst) {
    EXPECT_EQ(
        DurationHistogram().Json(),
        R"({"count":0,"longest_us":0,"longest":{"cpu_us":0,"waits":0,"preemptions":0,"disk_reads":0},"below_us":{}})");
}

TEST(AHistogram, CountsADurationInTheClassAboveIt) {
    DurationHistogram histogram;
    for (const auto duration : {0us, 15us, 16us, 31us, 32us})
        histogram.Add(duration, {});
    EXPECT_EQ(
        histogram.Json(),
        R"({"count":5,"longest_us":32,"longest":{"cpu_us":0,"waits":0,"preemptions":0,"disk_reads":0},"below_us":{"16":2,"32":2,"64":1}})");
}

TEST(AHistogram, KeepsTheLongestAndWhatItHadOfTheMachine) {
    DurationHistogram histogram;
    histogram.Add(5ms, {2ms, 3, 4, 5});
    histogram.Add(1ms, {1ms, 1, 1, 1});
    EXPECT_EQ(histogram.Longest(), 5ms);
    EXPECT_EQ(histogram.Count(), 2U);
    EXPECT_EQ(histogram.Json(),
              R"({"count":2,"longest_us":5000,"longest":{"cpu_us":2000,"waits":3,"preemptions":4,"disk_reads":5},)"
              R"("below_us":{"1024":1,"8192":1}})");
}

TEST(AHistogram, HasAClassForEverythingBeyond) {
    DurationHistogram histogram;
    histogram.Add(1h, {});
    EXPECT_EQ(
        histogram.Json(),
        R"({"count":1,"longest_us":3600000000,"longest":{"cpu_us":0,"waits":0,"preemptions":0,"disk_reads":0},"below_us":{"more":1}})");
}

} // namespace
} // namespace GatewayApp
