// SPDX-License-Identifier: Apache-2.0
#include "base/Text.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace OrvPlatform {
namespace {

TEST(TrimmedText, HasLostTheBlanksAtItsEndsOnly) {
    EXPECT_EQ(Trimmed(" \t a b \t", " \t"), "a b");
    EXPECT_EQ(Trimmed("a", " \t"), "a");
}

TEST(TrimmedText, IsEmptyWhereThereAreOnlyBlanks) {
    EXPECT_EQ(Trimmed("", " "), "");
    EXPECT_EQ(Trimmed("   ", " "), "");
}

TEST(TrimmedText, KeepsWhatCountsForNoBlank) {
    EXPECT_EQ(Trimmed(" \ta ", " "), "\ta");
}

TEST(AnErrorNumber, HasAText) {
    EXPECT_EQ(ErrorText(ENOENT), "No such file or directory");
    EXPECT_EQ(ErrorText(12345), "Unknown error 12345");
}

} // namespace
} // namespace OrvPlatform
