// SPDX-License-Identifier: Apache-2.0
#include "Words.h"

#include "CommandError.h"

#include <algorithm>

namespace OrvShell {

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

class Splitter {
public:
    explicit Splitter(const std::string& source) : line(source) {}

    Words Run() {
        while (SkipBlanks() && line[position] != '#')
            words.push_back(NextWord());
        return words;
    }

private:
    bool SkipBlanks() {
        while (position < line.size() && IsBlank(line[position]))
            ++position;
        return position < line.size();
    }

    std::string NextWord() {
        std::string word;
        while (position < line.size() && !IsBlank(line[position])) {
            const char c = line[position++];
            if (c == '\'' || c == '"')
                Quoted(c, word);
            else if (c == '\\')
                word += Escaped();
            else
                word += c;
        }
        return word;
    }

    void Quoted(char quote, std::string& word) {
        while (position < line.size() && line[position] != quote) {
            const char c = line[position++];
            word += c == '\\' && quote == '"' ? Escaped() : c;
        }
        if (position == line.size())
            throw CommandError(std::string("unfinished text: the closing ") + quote + " is missing");
        ++position;
    }

    char Escaped() {
        if (position == line.size())
            throw CommandError("nothing follows the backslash at the end; write \\\\ for a backslash");
        const char c = line[position++];
        switch (c) {
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        case '0':
            return '\0';
        case 'x':
            return HexEscaped();
        default:
            return c;
        }
    }

    char HexEscaped() {
        const int high = position < line.size() ? HexDigit(line[position]) : -1;
        const int low = position + 1 < line.size() ? HexDigit(line[position + 1]) : -1;
        if (high < 0 || low < 0)
            throw CommandError("\\x takes two hexadecimal digits, e.g. \\x1b");
        position += 2;
        return static_cast<char>(high * 16 + low);
    }

    const std::string& line;
    std::size_t position = 0;
    Words words;
};

std::string HexEscape(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return std::string("\\x") + "0123456789abcdef"[byte / 16] + "0123456789abcdef"[byte % 16];
}

/// How many bytes the character at `position` has in valid UTF-8, and which it is; 0 when it is not valid.
std::size_t Decode(const std::string& text, std::size_t position, char32_t& character) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : 0); };
    const unsigned char first = byteAt(position);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length < 2) {
        character = first;
        return length;
    }
    character = first & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(position + i) & 0xc0U) != 0x80)
            return 0;
        character = (character << 6U) | (byteAt(position + i) & 0x3fU);
    }
    const bool overlong = character < (length == 2 ? 0x80U : length == 3 ? 0x800U : 0x10000U);
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    return overlong || surrogate || character > 0x10ffff ? 0 : length;
}

bool SteersTheTerminal(char32_t c) {
    const auto between = [c](char32_t first, char32_t last) { return c >= first && c <= last; };
    return c < 0x20 || between(0x7f, 0x9f) || c == 0x61c || between(0x200e, 0x200f) || between(0x2028, 0x202e) ||
           between(0x2066, 0x2069) || c == 0xfeff;
}

/// @param escape what stands for a character of one byte, empty for itself
template <typename Escape>
std::string Escaped(const std::string& text, Escape escape) {
    std::string escaped;
    for (std::size_t position = 0; position < text.size();) {
        char32_t character = 0;
        const std::size_t length = Decode(text, position, character);
        const std::string replacement = length == 1 ? escape(text[position]) : std::string();
        if (!replacement.empty())
            escaped += replacement;
        else if (length > 0 && !SteersTheTerminal(character))
            escaped += text.substr(position, length);
        else
            for (std::size_t i = 0; i < std::max<std::size_t>(length, 1); ++i)
                escaped += HexEscape(text[position + i]);
        position += std::max<std::size_t>(length, 1);
    }
    return escaped;
}

std::string EscapeInQuotes(char c) {
    switch (c) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    case '"':
        return "\\\"";
    case '\\':
        return "\\\\";
    default:
        return {};
    }
}

bool IsBareCharacter(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::string("_-+.,:/%@=?!()").find(c) != std::string::npos;
}

} // namespace

Words SplitLine(const std::string& line) {
    return Splitter(line).Run();
}

std::string Quote(const std::string& text) {
    if (!text.empty() && std::all_of(text.begin(), text.end(), IsBareCharacter))
        return text;
    return '"' + Escaped(text, EscapeInQuotes) + '"';
}

std::string Printable(const std::string& text) {
    return Escaped(text, [](char c) { return std::string(c == '\t' ? "\t" : ""); });
}

std::string Join(const Words& words, const std::string& separator) {
    std::string text;
    for (const std::string& word : words)
        text += (&word == &words.front() ? "" : separator) + word;
    return text;
}

} // namespace OrvShell
