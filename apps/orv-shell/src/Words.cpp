// SPDX-License-Identifier: Apache-2.0
#include "Words.h"

#include "CommandError.h"

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

bool IsBareCharacter(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::string("_-+.,:/%@=?!()").find(c) != std::string::npos;
}

} // namespace

Words SplitLine(const std::string& line) {
    return Splitter(line).Run();
}

std::string Quote(const std::string& text) {
    bool bare = !text.empty();
    std::string quoted = "\"";
    for (const char c : text) {
        bare = bare && IsBareCharacter(c);
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n')
            quoted += "\\n";
        else if (c == '\r')
            quoted += "\\r";
        else if (c == '\t')
            quoted += "\\t";
        else if (byte < 0x20 || byte == 0x7f)
            quoted += std::string("\\x") + "0123456789abcdef"[byte / 16] + "0123456789abcdef"[byte % 16];
        else if (c == '"' || c == '\\')
            quoted += std::string("\\") + c;
        else
            quoted += c;
    }
    return bare ? text : quoted + '"';
}

std::string Join(const Words& words, const std::string& separator) {
    std::string text;
    for (const std::string& word : words)
        text += (&word == &words.front() ? "" : separator) + word;
    return text;
}

} // namespace OrvShell
