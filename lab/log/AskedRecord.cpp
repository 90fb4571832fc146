// SPDX-License-Identifier: Apache-2.0
#include "log/AskedRecord.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace OrvLab {

namespace {

constexpr std::size_t MOST = 8192; // of tag and text

struct Strange {
    const char* raw;
    std::vector<std::string> shown;
};

const std::vector<Strange>& AllStrange() {
    static const std::vector<Strange> all{
        {"\\", {"\\\\"}},
        {"\n", {"\\x0a"}},
        {"\t", {"\\x09"}},
        {"\x1b[2J", {"\\x1b", "[", "2", "J"}},
        {"\x7f", {"\\x7f"}},
        {" ~", {" ", "~"}},
        {"\xc3\xa9", {"\xc3\xa9"}},                                       // of two bytes
        {"\xc2\xa0", {"\xc2\xa0"}},                                       // the first that is shown
        {"\xe2\x82\xac", {"\xe2\x82\xac"}},                               // of three
        {"\xf0\x9f\x98\x80", {"\xf0\x9f\x98\x80"}},                       // of four
        {"\xf4\x8f\xbf\xbf", {"\xf4\x8f\xbf\xbf"}},                       // the last one
        {"\xc2\x80", {"\\xc2\\x80"}},                                     // controls
        {"\xc2\x9f", {"\\xc2\\x9f"}},                                     //
        {"\xe2\x80\xa8", {"\\xe2\\x80\\xa8"}},                            // a line's end
        {"\xe2\x80\xae", {"\\xe2\\x80\\xae"}},                            // the other direction
        {"\xe2\x81\xa6", {"\\xe2\\x81\\xa6"}},                            //
        {"\xd8\x9c", {"\\xd8\\x9c"}},                                     //
        {"\xef\xbb\xbf", {"\\xef\\xbb\\xbf"}},                            // a byte order mark
        {"\xff", {"\\xff"}},                                              // no UTF-8
        {"\xc0\xaf", {"\\xc0", "\\xaf"}},                                 // overlong
        {"\xe0\x9f\xbfx", {"\\xe0", "\\x9f", "\\xbf", "x"}},              //
        {"\xf0\x8f\xbf\xbfx", {"\\xf0", "\\x8f", "\\xbf", "\\xbf", "x"}}, //
        {"\xed\xa0\x80x", {"\\xed", "\\xa0", "\\x80", "x"}},              // a surrogate
        {"\xf4\x90\x80\x80x", {"\\xf4", "\\x90", "\\x80", "\\x80", "x"}}, // beyond the last one
        {"\xe2\x82x", {"\\xe2", "\\x82", "x"}},                           // cut
        {"\xc3x", {"\\xc3", "x"}},                                        //
    };
    return all;
}

} // namespace

void ForeignText::Add(const std::string& plain, std::size_t times) {
    for (std::size_t count = 0; count < times; ++count)
        raw += plain;
    if (plain.size() == 1)
        pieces.push_back({plain, times});
    else
        for (std::size_t count = 0; count < times; ++count)
            for (const char letter : plain)
                pieces.push_back({std::string(1, letter), 1});
}

void ForeignText::AddAny(Random& random, std::size_t bytes, bool withNul) {
    while (bytes > 0) {
        const std::size_t plain = std::min<std::size_t>(bytes, random.Below(bytes > 100 ? 2000 : 20));
        Add("x", plain);
        bytes -= plain;
        const Strange& strange = AllStrange()[random.Below(static_cast<unsigned>(AllStrange().size()))];
        raw += strange.raw;
        for (const std::string& shown : strange.shown)
            pieces.push_back({shown, 1});
        if (withNul && random.OneIn(20)) {
            raw += '\0';
            pieces.push_back({"\\x00", 1});
        }
        bytes -= std::min<std::size_t>(bytes, 4);
    }
}

std::string ForeignText::Shown(const std::string& name) {
    std::string shown;
    for (const char letter : name)
        shown += letter == '\t' ? "\\x09" : std::string(1, letter);
    return shown;
}

bool ForeignText::ShowIn(std::string& line, std::size_t room) const {
    for (const Piece& piece : pieces) {
        const std::size_t fit = std::min(piece.times, room / piece.shown.size());
        for (std::size_t count = 0; count < fit; ++count)
            line += piece.shown;
        room -= fit * piece.shown.size();
        if (fit < piece.times)
            return false;
    }
    return true;
}

std::string LogRecordAsked::Shown() const {
    std::string line;
    bool isWhole = tag.ShowIn(line, MOST);
    if (!tag.Raw().empty() && !text.Raw().empty() && text.Raw().front() != '(')
        line += ": ";
    isWhole = text.ShowIn(line, MOST - std::min(MOST, line.size())) && isWhole;
    if (!isWhole)
        line += " [cut, " + std::to_string(tag.Raw().size() + text.Raw().size()) + " bytes in all]";
    return line;
}

std::string LogRecordAsked::Mark(int thread, int number) {
    return "r" + std::to_string(thread) + "." + std::to_string(number) + " ";
}

std::pair<int, int> LogRecordAsked::Marked(const std::string& line) {
    for (std::size_t at = line.find('r'); at != std::string::npos; at = line.find('r', at + 1)) {
        int thread = -1;
        int number = -1;
        char behind = '\0';
        if (std::sscanf(line.c_str() + at, "r%d.%d%c", &thread, &number, &behind) == 3 && behind == ' ' &&
            thread >= 0 && number >= 0)
            return {thread, number};
    }
    return {-1, -1};
}

} // namespace OrvLab
