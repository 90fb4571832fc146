// SPDX-License-Identifier: Apache-2.0
#include "broker/OutstandingPublications.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace OrvPlatform {

TEST(OutstandingPublicationsOfAKilobyte, AdmitUpToTheLimitAndNoFurther) {
    OutstandingPublications outstanding(1000);
    EXPECT_TRUE(outstanding.HasRoomFor(1000));
    EXPECT_FALSE(outstanding.HasRoomFor(1001));
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    EXPECT_TRUE(outstanding.HasRoomFor(400));
    EXPECT_FALSE(outstanding.HasRoomFor(401));
}

TEST(OutstandingPublicationsOfAKilobyte, MakeRoomAsTheBrokerTakesThem) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Add(2, OutstandingPublications::Prepare({"", 400, false}));
    EXPECT_EQ(outstanding.Take(1)->topic, "a");
    EXPECT_FALSE(outstanding.Take(1));
    EXPECT_EQ(outstanding.Bytes(), 400U);
}

TEST(OutstandingPublicationsOfAKilobyte, CountNothingForEverWhenAnIdIsUsedAgainBeforeItIsTaken) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Add(1, OutstandingPublications::Prepare({"", 300, false}));
    outstanding.Take(1);
    outstanding.Take(1);
    EXPECT_EQ(outstanding.Bytes(), 0U);
}

TEST(OutstandingPublicationsOfAKilobyte, LoseWithTheConnectionWhatIsNotAssured) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Add(2, OutstandingPublications::Prepare({"", 400, false}));
    outstanding.DropUnassured();
    EXPECT_EQ(outstanding.Bytes(), 600U);
    EXPECT_TRUE(outstanding.Take(1));
}

TEST(OutstandingPublicationsOfAKilobyte, CountTextAndBookkeeping) {
    const std::size_t empty = OutstandingPublications::Cost("", "");
    EXPECT_GT(empty, 0U);
    EXPECT_EQ(OutstandingPublications::Cost("topic", "payload"), empty + 12);
}

TEST(OutstandingPublicationsOfAKilobyte, AreNoneOnceTheyAreCleared) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 600, true}));
    outstanding.Clear();
    EXPECT_EQ(outstanding.Bytes(), 0U);
    EXPECT_FALSE(outstanding.Take(1));
}

TEST(OutstandingPublicationsOfAKilobyte, AdmitNothingBeyondALimitThatAnnouncementsHavePassed) {
    OutstandingPublications outstanding(1000);
    outstanding.Add(1, OutstandingPublications::Prepare({"a", 1001, true}));
    EXPECT_FALSE(outstanding.HasRoomFor(1));
}

TEST(OutstandingPublicationsWithoutAByteLimit, NeverRunOutOfMessageIds) {
    OutstandingPublications outstanding(std::size_t{1} << 30U);
    for (int id = 1; id <= 60000; ++id)
        outstanding.Add(id, OutstandingPublications::Prepare({"", 1, false}));
    EXPECT_FALSE(outstanding.HasRoomFor(1));
}

} // namespace OrvPlatform
