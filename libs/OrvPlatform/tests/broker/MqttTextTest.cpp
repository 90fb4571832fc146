// SPDX-License-Identifier: Apache-2.0
#include "broker/MqttText.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace OrvPlatform {

TEST(ATextForTheBroker, IsNamedWithItsFault) {
    for (const auto& [text, fault] :
         std::vector<std::pair<std::string, std::string>>{{"", "is empty"},
                                                          {std::string(65536, 'x'), "is longer than 65535 bytes"},
                                                          {std::string("a\0b", 3), "holds a control character"},
                                                          {"a\nb", "holds a control character"},
                                                          {"a\x7f", "holds a control character"},
                                                          {"a\xff", "is not UTF-8 text"},
                                                          {"a\xc2\x85", "is not UTF-8 text"},
                                                          {"a/+", "holds a wildcard (+ or #)"},
                                                          {"#", "holds a wildcard (+ or #)"}}) {
        const char* found = FaultOfTopic(text);
        EXPECT_STREQ(found, fault.c_str()) << text.substr(0, 20);
    }
    for (const char* topic : {"a", "/", "//", "a//b", "\xc3\xa4"})
        EXPECT_EQ(FaultOfTopic(topic), nullptr) << topic;
    EXPECT_EQ(FaultOfText("a/+/#"), nullptr);
}

} // namespace OrvPlatform
