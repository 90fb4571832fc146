// SPDX-License-Identifier: Apache-2.0
#include "Words.h"
#include "CommandError.h"
#include "Duration.h"

#include <gtest/gtest.h>

using namespace OrvShell;
using namespace std::chrono_literals;

namespace {

std::string ErrorOf(void (*read)(const std::string&), const std::string& text) {
    try {
        read(text);
    } catch (const CommandError& error) {
        return error.what();
    }
    return "no error";
}

std::string SplitError(const std::string& line) {
    return ErrorOf([](const std::string& text) { SplitLine(text); }, line);
}

std::string DurationError(const std::string& text) {
    return ErrorOf([](const std::string& word) { ParseDuration(word); }, text);
}

} // namespace

TEST(ALine, IsSplitAtBlanks) {
    EXPECT_EQ(SplitLine("  status \t ready\r"), (Words{"status", "ready"}));
    EXPECT_EQ(SplitLine(""), Words{});
    EXPECT_EQ(SplitLine(" \t "), Words{});
}

TEST(ALine, KeepsBlanksInsideQuotes) {
    EXPECT_EQ(SplitLine("panel \"two words\" 3"), (Words{"panel", "two words", "3"}));
    EXPECT_EQ(SplitLine("panel 'two  words' 3"), (Words{"panel", "two  words", "3"}));
    EXPECT_EQ(SplitLine("a'b c'\"d e\"f"), (Words{"ab cd ef"}));
}

TEST(ALine, HasEmptyWordsOnlyInQuotes) {
    EXPECT_EQ(SplitLine("conn-status \"\""), (Words{"conn-status", ""}));
    EXPECT_EQ(SplitLine("''"), (Words{""}));
}

TEST(ALine, TakesEscapesInDoubleQuotesAndOutside) {
    EXPECT_EQ(SplitLine(R"("a\"b\\c\n\t\r")"), (Words{"a\"b\\c\n\t\r"}));
    EXPECT_EQ(SplitLine(R"(two\ words)"), (Words{"two words"}));
    EXPECT_EQ(SplitLine(R"("\x1b\x00\0z")"), (Words{std::string("\x1b\0\0z", 4)}));
}

TEST(ALine, TakesSingleQuotedTextLiterally) {
    EXPECT_EQ(SplitLine(R"('a\n"b"')"), (Words{"a\\n\"b\""}));
}

TEST(ALine, EndsWhereACommentBegins) {
    EXPECT_EQ(SplitLine("stop # now"), (Words{"stop"}));
    EXPECT_EQ(SplitLine("# nothing"), Words{});
    EXPECT_EQ(SplitLine("conn-status a#b"), (Words{"conn-status", "a#b"}));
    EXPECT_EQ(SplitLine("conn-status '#'"), (Words{"conn-status", "#"}));
}

TEST(ALine, IsRefusedWhenItIsUnfinished) {
    EXPECT_EQ(SplitError("panel \"text 3"), "unfinished text: the closing \" is missing");
    EXPECT_EQ(SplitError("panel 'text 3"), "unfinished text: the closing ' is missing");
    EXPECT_EQ(SplitError("panel \\"), "nothing follows the backslash at the end; write \\\\ for a backslash");
    EXPECT_EQ(SplitError(R"("\x1")"), "\\x takes two hexadecimal digits, e.g. \\x1b");
    EXPECT_EQ(SplitError(R"("\x1")"), SplitError("\\xg0"));
}

TEST(AQuotedWord, IsBareWhereThatIsPossible) {
    EXPECT_EQ(Quote("RELOAD"), "RELOAD");
    EXPECT_EQ(Quote("-71"), "-71");
    EXPECT_EQ(Quote("-71 dBm"), "\"-71 dBm\"");
    EXPECT_EQ(Quote(""), "\"\"");
    EXPECT_EQ(Quote("#"), "\"#\"");
}

TEST(AQuotedWord, ShowsControlCharactersAsEscapes) {
    EXPECT_EQ(Quote("\x1b[31m\n\"\\"), R"("\x1b[31m\n\"\\")");
}

TEST(AQuotedWord, ShowsEverythingElseThatSteersATerminalAsEscapesToo) {
    EXPECT_EQ(Quote("\xc2\x9b 31m"), R"("\xc2\x9b 31m")");         // C1: begins a control sequence
    EXPECT_EQ(Quote("\x9b 31m"), R"("\x9b 31m")");                 // the same where the terminal is not in UTF-8
    EXPECT_EQ(Quote("\xe2\x80\xae gpj"), R"("\xe2\x80\xae gpj")"); // writes from right to left
    EXPECT_EQ(Quote("\xe2\x80\xa8"), R"("\xe2\x80\xa8")");         // line separator
    EXPECT_EQ(Quote("\xef\xbb\xbf"), R"("\xef\xbb\xbf")");         // byte order mark
    EXPECT_EQ(Quote("\xc0\x80 \xed\xa0\x80 \xf5"), R"("\xc0\x80 \xed\xa0\x80 \xf5")");
    EXPECT_EQ(Quote("\xe2\x82"), R"("\xe2\x82")"); // cut off
}

TEST(AQuotedWord, ShowsForeignLettersAsTheyAre) {
    EXPECT_EQ(Quote("T\xc3\xbcr \xe2\x82\xac \xf0\x9f\x94\xa5"), "\"T\xc3\xbcr \xe2\x82\xac \xf0\x9f\x94\xa5\"");
}

TEST(APrintableLine, HasNoEscapesButForWhatSteersATerminal) {
    EXPECT_EQ(Printable("note \"a \\ b\"\t'c'"), "note \"a \\ b\"\t'c'");
    EXPECT_EQ(Printable("note \x1b[2J\xc2\x9b\r"), R"(note \x1b[2J\xc2\x9b\x0d)");
}

TEST(AQuotedWord, IsReadBackAsItWas) {
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    EXPECT_EQ(SplitLine(Quote(everyByte)), Words{everyByte});
    for (const char c : everyByte)
        EXPECT_EQ(SplitLine(Quote(std::string(1, c))), Words{std::string(1, c)}) << static_cast<int>(c);
}

TEST(ADuration, IsANumberWithAUnit) {
    EXPECT_EQ(ParseDuration("100ms"), 100ms);
    EXPECT_EQ(ParseDuration("2s"), 2s);
    EXPECT_EQ(ParseDuration("1.5s"), 1500ms);
    EXPECT_EQ(ParseDuration("0.25m"), 15s);
    EXPECT_EQ(ParseDuration("24h"), 24h);
    EXPECT_EQ(ParseDuration("0"), 0ms);
    EXPECT_EQ(ParseDuration("1.999ms"), 1ms);
}

TEST(ADuration, IsRefusedInAnyOtherForm) {
    for (const char* text : {"", "5", "s", "-1s", "+1s", "1 s", "2x", "1.s", ".5s", "1.2.3s", "1.2345s", "1sec",
                             "24.1h", "86401s", "99999999999999999999ms"})
        EXPECT_EQ(DurationError(text),
                  "not a duration: " + Quote(text) +
                      "; write a number and a unit (ms, s, m, h), at most 24h, e.g. 100ms or 1.5s");
}

TEST(ADuration, IsWrittenAsItIsRead) {
    EXPECT_EQ(DurationText(1500ms), "1500ms");
    EXPECT_EQ(DurationText(120s), "2m");
    EXPECT_EQ(DurationText(90s), "90s");
    EXPECT_EQ(DurationText(0ms), "0");
}
