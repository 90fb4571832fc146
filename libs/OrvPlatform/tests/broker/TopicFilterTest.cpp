// SPDX-License-Identifier: Apache-2.0
#include "broker/TopicFilter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace OrvPlatform {

TEST(ATopicFilter, MatchesAsASubscriptionWould) {
    const std::vector<std::string> filters{"/orv/led/+", "/orv/network/#", "/exact"};
    for (const char* topic : {"/orv/led/green", "/orv/network", "/orv/network/wan/inhibit_dns", "/exact"})
        EXPECT_TRUE(MatchesAny(filters, topic)) << topic;
    for (const char* topic : {"", "/orv/led", "/orv/led/a/b", "/orv/networks", "/exact/", "exact", "/orv/led/+"})
        EXPECT_FALSE(MatchesAny(filters, topic)) << topic;
    EXPECT_FALSE(MatchesAny({}, "/exact"));
}

} // namespace OrvPlatform
