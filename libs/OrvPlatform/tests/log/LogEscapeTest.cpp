// SPDX-License-Identifier: Apache-2.0
#include "log/LogEscape.h"

#include <gtest/gtest.h>

using OrvPlatform::AppendEscaped;
using OrvPlatform::Escaped;

namespace {

struct Example {
    const char* name;
    std::string text;
    std::string escaped;
};

class EscapingForTheLog : public testing::TestWithParam<Example> {};

TEST_P(EscapingForTheLog, Gives) {
    EXPECT_EQ(Escaped(GetParam().text), GetParam().escaped);
}

std::string AllControls() {
    std::string text;
    for (char c = 0; c < 0x20; ++c)
        text += c;
    return text + '\x7f';
}

constexpr const char* allControlsEscaped = R"(\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f)"
                                           R"(\x10\x11\x12\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f\x7f)";

INSTANTIATE_TEST_SUITE_P(
    Of, EscapingForTheLog,
    testing::Values(Example{"Nothing", "", ""}, Example{"PlainText", "a ~!\"'%", "a ~!\"'%"},
                    Example{"Backslash", R"(\x0a \\)", R"(\\x0a \\\\)"},
                    Example{"Controls", AllControls(), allControlsEscaped},
                    Example{"Printable", "\u00a0\u00e9\u20ac\U0001f600\U0010ffff",
                            "\u00a0\u00e9\u20ac\U0001f600\U0010ffff"},
                    Example{"EdgesOfEachLength", "\u07ff\u0800\ufffd\U00010000", "\u07ff\u0800\ufffd\U00010000"},
                    Example{"C1Controls", "\xc2\x80|\xc2\x85|\xc2\x9f", R"(\xc2\x80|\xc2\x85|\xc2\x9f)"},
                    Example{"LineSeparators", "\u2028\u2029", R"(\xe2\x80\xa8\xe2\x80\xa9)"},
                    Example{"Reordering", "\u202a\u202e\u2066\u2069\u200f\u061c",
                            R"(\xe2\x80\xaa\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa9\xe2\x80\x8f\xd8\x9c)"},
                    Example{"ByteOrderMark", "\ufeff", R"(\xef\xbb\xbf)"},
                    Example{"LoneTails", "\x80\xbf|\x81\x80\x80\x80", R"(\x80\xbf|\x81\x80\x80\x80)"},
                    Example{"Overlong", "\xc0\xaf|\xc1\xbf|\xe0\x80\xaf|\xf0\x80\x80\xaf",
                            R"(\xc0\xaf|\xc1\xbf|\xe0\x80\xaf|\xf0\x80\x80\xaf)"},
                    Example{"OverlongPrintable", "\xe0\x82\xa9|\xf0\x82\x82\xac", R"(\xe0\x82\xa9|\xf0\x82\x82\xac)"},
                    Example{"Surrogates", "\xed\xa0\x80\xed\xbf\xbf", R"(\xed\xa0\x80\xed\xbf\xbf)"},
                    Example{"BeyondUnicode", "\xf4\x90\x80\x80\xf5\xff", R"(\xf4\x90\x80\x80\xf5\xff)"},
                    Example{"CutSequences", "\xe2\x82|\xf0\x9f\x98|\xc3", R"(\xe2\x82|\xf0\x9f\x98|\xc3)"},
                    Example{"ForgedLine", "x\n2026-01-01T00:00:00.000Z error [Log] disk",
                            R"(x\x0a2026-01-01T00:00:00.000Z error [Log] disk)"}),
    [](const auto& instance) { return instance.param.name; });

TEST(EscapingAPartOfAText, DoesNotLookBeyondIt) {
    EXPECT_EQ(Escaped(std::string_view("\u00e9").substr(0, 1)), "\\xc3");
}

class EscapingIntoLimitedRoom : public testing::Test {
protected:
    std::string Cut(const std::string& text, std::size_t room) {
        std::string line = "|";
        taken = AppendEscaped(text, room, line);
        return line;
    }
    std::size_t taken = 0;
};

TEST_F(EscapingIntoLimitedRoom, StopsBeforeACharacterThatDoesNotFit) {
    EXPECT_EQ(Cut("ab\ncd", 5), "|ab");
    EXPECT_EQ(taken, 2U);
    EXPECT_EQ(Cut("ab\ncd", 6), "|ab\\x0a");
    EXPECT_EQ(taken, 3U);
    EXPECT_EQ(Cut("\u20ac", 2), "|");
    EXPECT_EQ(Cut("a\\", 2), "|a");
    EXPECT_EQ(Cut("\u2028", 11), "|");
    EXPECT_EQ(Cut("\u2028", 12), "|\\xe2\\x80\\xa8");
}

TEST_F(EscapingIntoLimitedRoom, TakesAllThatFitsExactly) {
    EXPECT_EQ(Cut("abc", 3), "|abc");
    EXPECT_EQ(taken, 3U);
    EXPECT_EQ(Cut("abc", 0), "|");
    EXPECT_EQ(taken, 0U);
}

} // namespace
