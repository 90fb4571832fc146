// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/StringHelpers.h"

#include <clocale>
#include <gtest/gtest.h>

using CommonUtils::StringHelpers;
using Pieces = std::vector<std::string>;

namespace {

constexpr const char* allLower = "abcdefghijklmnopqrstuvwxyz";
constexpr const char* allUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

TEST(Comparing, IgnoresTheCaseOfAsciiLettersOnly) {
    EXPECT_TRUE(StringHelpers::CompareCaseInsensitive("", ""));
    EXPECT_TRUE(StringHelpers::CompareCaseInsensitive(allLower, allUpper));
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive("a", ""));
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive("ab", "abc"));
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive("abc", "ab"));
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive("a", "b"));
    // Neighbours of the letters, 32 apart like cases are.
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive("@[`{", "`{@["));
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive("\xe4", "\xc4"));
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive(std::string("a\0b", 3), std::string("a\0c", 3)));
}

TEST(ChangingTheCase, TouchesAsciiLettersOnly) {
    EXPECT_EQ(StringHelpers::ToUpper(allLower), allUpper);
    EXPECT_EQ(StringHelpers::ToLower(allUpper), allLower);
    EXPECT_EQ(StringHelpers::ToUpper(""), "");
    EXPECT_EQ(StringHelpers::ToLower(""), "");
    std::string others;
    for (int byte = 0; byte < 256; ++byte)
        if (std::string(allLower).find(static_cast<char>(byte)) == std::string::npos &&
            std::string(allUpper).find(static_cast<char>(byte)) == std::string::npos)
            others += static_cast<char>(byte);
    EXPECT_EQ(others.size(), 204U);
    EXPECT_EQ(StringHelpers::ToUpper(others), others);
    EXPECT_EQ(StringHelpers::ToLower(others), others);
}

class UnderAnotherLocale : public testing::Test {
protected:
    void SetUp() override {
        for (const char* name : {"tr_TR.ISO-8859-9", "de_DE.ISO-8859-1", "en_US.ISO-8859-1", "C.UTF-8"})
            if (std::setlocale(LC_ALL, name) != nullptr) // NOLINT(concurrency-mt-unsafe)
                return;
        GTEST_SKIP() << "the machine has no locale but C";
    }
    void TearDown() override { std::setlocale(LC_ALL, "C"); } // NOLINT(concurrency-mt-unsafe)
};

TEST_F(UnderAnotherLocale, CaseIsStillThatOfAscii) {
    EXPECT_EQ(StringHelpers::ToUpper("i\xe4\xfd"), "I\xe4\xfd");
    EXPECT_EQ(StringHelpers::ToLower("I\xc4\xdd"), "i\xc4\xdd");
    EXPECT_FALSE(StringHelpers::CompareCaseInsensitive("\xe4", "\xc4"));
}

TEST(ABoolean, IsTrueForFourWordsInAnyCaseWithBlanksAround) {
    for (const char* word : {"true", "TRUE", "True", "1", "yes", "Yes", "on", "ON", " true\r\n", "\t1 "})
        EXPECT_TRUE(StringHelpers::ToBoolean(word)) << word;
    for (const char* word :
         {"", " ", "false", "0", "no", "off", "2", "10", "t", "y", "truee", "true false", "\xa0true"})
        EXPECT_FALSE(StringHelpers::ToBoolean(word)) << word;
    EXPECT_FALSE(StringHelpers::ToBoolean(std::string("true\0", 5)));
}

TEST(Tokenizing, GivesThePiecesThatAreNotEmpty) {
    EXPECT_EQ(StringHelpers::Tokenize("", '/'), Pieces{});
    EXPECT_EQ(StringHelpers::Tokenize("///", '/'), Pieces{});
    EXPECT_EQ(StringHelpers::Tokenize("a", '/'), Pieces{"a"});
    EXPECT_EQ(StringHelpers::Tokenize("/a//bc/ /", '/'), (Pieces{"a", "bc", " "}));
    EXPECT_EQ(StringHelpers::Tokenize("a/b", ','), Pieces{"a/b"});
    EXPECT_EQ(StringHelpers::Tokenize(std::string("a\0b", 3), '\0'), (Pieces{"a", "b"}));
    EXPECT_EQ(StringHelpers::Tokenize("\xff|\xfe", '|'), (Pieces{"\xff", "\xfe"}));
}

} // namespace
