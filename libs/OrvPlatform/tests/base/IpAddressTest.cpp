// SPDX-License-Identifier: Apache-2.0
#include "base/IpAddress.h"

#include <gtest/gtest.h>

namespace OrvPlatform {
namespace {

using namespace std::string_literals;

TEST(AnIpAddress, IsWrittenAsSuch) {
    for (const std::string& text :
         {"192.0.2.1"s, "0.0.0.0"s, "255.255.255.255"s, "::"s, "2001:db8::1"s, "::ffff:192.0.2.1"s})
        EXPECT_TRUE(IsIpAddress(text)) << text;
}

TEST(AnIpAddress, IsNothingElse) {
    for (const std::string& text : {""s, "localhost"s, "192.0.2"s, "192.0.2.256"s, " 192.0.2.1"s, "192.0.2.1 "s,
                                    "192.0.2.1/24"s, "[::1]"s, "fe80::1%eth0"s, "192.0.2.1\0x"s})
        EXPECT_FALSE(IsIpAddress(text)) << text;
}

TEST(TheUnspecifiedAddress, IsKnownInEverySpelling) {
    for (const std::string& text : {"0.0.0.0"s, "::"s, "0::0"s, "::0"s, "0:0:0:0:0:0:0:0"s, "::0.0.0.0"s})
        EXPECT_TRUE(IsUnspecifiedAddress(text)) << text;
    for (const std::string& text : {""s, "0"s, "0.0.0.1"s, "::1"s, "::0.0.0.1"s})
        EXPECT_FALSE(IsUnspecifiedAddress(text)) << text;
}

} // namespace
} // namespace OrvPlatform
