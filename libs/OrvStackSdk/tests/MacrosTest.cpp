// SPDX-License-Identifier: Apache-2.0
// The public headers behind macros that have the names of enumerators. That they compile is half of the test.
#include <resolv.h>
#ifndef NOERROR
#error "<resolv.h> has a macro of this name, or there is nothing to test"
#endif

#define ACK 4
#define DISABLED "#a3a3a3"
#define ENABLED 1
#define ERROR (-1)
#define OFF 0
#define ON 1
#define RELOAD 301

#include "OrvStackSdk/OrvStackSdk.h"

#include <gtest/gtest.h>
#include <string>

using namespace OrvStackSdk;

namespace {

TEST(PublicHeadersBehindMacros, LeaveTheMacrosAsTheyWere) {
    EXPECT_EQ(NOERROR, ns_r_noerror);
    EXPECT_EQ(ERROR, -1);
    EXPECT_EQ(std::string(DISABLED), "#a3a3a3");
    EXPECT_EQ(ACK + ENABLED + ON + OFF + RELOAD, 307);
}

TEST(PublicHeadersBehindMacros, LetNoErrorBeNamedBesideTheResolver) {
    EXPECT_EQ(static_cast<int>(AppStatus::NOERROR), 5);
    EXPECT_EQ(AppStatusText(AppStatus::NOERROR), "noerror");
}

#undef ERROR
#undef ON

TEST(PublicHeadersBehindMacros, OfferTheOtherNamesOnceTheMacrosAreUndefined) {
    EXPECT_EQ(AppStatusText(AppStatus::ERROR), "error");
    EXPECT_EQ(ConnectedServicesLedStateText(ConnectedServicesLedState::ON), "ON");
}

} // namespace
