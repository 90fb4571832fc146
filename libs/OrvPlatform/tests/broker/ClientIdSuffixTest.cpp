// SPDX-License-Identifier: Apache-2.0
#include "broker/ClientIdSuffix.h"
#include "TestClient.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace OrvPlatform {

TEST(AClientIdSuffix, HasEachPlaceholderReplacedWhereverItStands) {
    const std::string process = std::to_string(getpid());
    EXPECT_EQ(ClientIdSuffix("", "plain", "meter"), "");
    EXPECT_EQ(ClientIdSuffix("-%-100%x", "plain", "meter"), "-%-100%x");
    EXPECT_EQ(ClientIdSuffix("%p-%p", "plain", "meter"), process + "-" + process);
    EXPECT_EQ(ClientIdSuffix("%a-%a", "plain", "meter"), "meter-meter");
    EXPECT_EQ(ClientIdSuffix("%n%n.%p", OrvTest::FreshId("twice"), "meter"), "11." + process);
}

TEST(AClientIdSuffix, NamesTheProgramInCharactersThatEveryBrokerTakes) {
    EXPECT_EQ(ClientIdSuffix("%a", "plain", "a b/c#%p\xc3\xa4.-_9"), "a_b_c__p__.-_9");
    EXPECT_EQ(ClientIdSuffix("%a", "plain", std::string(33, 'x')), std::string(32, 'x'));
}

TEST(AClientIdSuffix, NumbersTheClientsOfEachIdThatAskForIt) {
    const std::string one = OrvTest::FreshId("one");
    EXPECT_EQ(ClientIdSuffix("-shell", one, "meter"), "-shell");
    EXPECT_EQ(ClientIdSuffix("-%n", one, "meter"), "-1");
    EXPECT_EQ(ClientIdSuffix("-%n", OrvTest::FreshId("another"), "meter"), "-1");
    EXPECT_EQ(ClientIdSuffix("-%n", one, "meter"), "-2");
}

} // namespace OrvPlatform
