// SPDX-License-Identifier: Apache-2.0
// The public headers before a header that defines a macro with the name of an enumerator.
#include "OrvStackSdk/OrvStackSdk.h"

#include <gtest/gtest.h>
#include <resolv.h>
#ifndef NOERROR
#error "<resolv.h> has a macro of this name, or there is nothing to test"
#endif

using namespace OrvStackSdk;

namespace {

TEST(PublicHeadersBeforeTheResolversMacro, LetNoErrorBeNamed) {
    EXPECT_EQ(static_cast<int>(AppStatus::NOERROR), 5);
    EXPECT_EQ(AppStatusText(AppStatus::NOERROR), "noerror");
    EXPECT_EQ(AppStatusTextToEnum("noerror"), AppStatus::NOERROR);
}

} // namespace
