// SPDX-License-Identifier: Apache-2.0
#include "log/LogEscape.h"

#include <limits>

namespace OrvPlatform {

namespace {

unsigned char Byte(char c) {
    return static_cast<unsigned char>(c);
}

bool IsPlain(char c) {
    return c >= 0x20 && c < 0x7f && c != '\\';
}

struct Character {
    char32_t code = 0;
    std::size_t length = 0; // 0: the bytes are no character
};

/// The lead byte gives the length, the payload bits of the first byte and the least code that needs that length.
Character DecodeFirstByte(unsigned char first, char32_t& least) {
    if (first >= 0xc2 && first <= 0xdf) {
        least = 0x80;
        return {first & 0x1fU, 2};
    }
    if (first >= 0xe0 && first <= 0xef) {
        least = 0x800;
        return {first & 0x0fU, 3};
    }
    if (first >= 0xf0 && first <= 0xf4) {
        least = 0x10000;
        return {first & 0x07U, 4};
    }
    return {};
}

Character Decode(std::string_view text) {
    char32_t least = 0;
    Character character = DecodeFirstByte(Byte(text[0]), least);
    if (character.length == 0 || character.length > text.size())
        return {};
    for (std::size_t i = 1; i < character.length; ++i) {
        if ((Byte(text[i]) & 0xc0) != 0x80)
            return {};
        character.code = (character.code << 6) | (Byte(text[i]) & 0x3fU);
    }
    const bool surrogate = character.code >= 0xd800 && character.code <= 0xdfff;
    if (character.code < least || surrogate || character.code > 0x10ffff)
        return {};
    return character;
}

bool IsPrintable(char32_t code) {
    if (code < 0xa0)
        return false;
    const bool reorders = code == 0x61c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e) ||
                          (code >= 0x2066 && code <= 0x2069);
    const bool separates = code == 0x2028 || code == 0x2029;
    return !reorders && !separates && code != 0xfeff;
}

void AppendHex(char c, std::string& line) {
    constexpr const char* digits = "0123456789abcdef";
    line += "\\x";
    line += digits[Byte(c) >> 4];
    line += digits[Byte(c) & 0x0f];
}

} // namespace

std::size_t AppendEscaped(std::string_view text, std::size_t room, std::string& line) {
    constexpr std::size_t hexLength = 4;
    std::size_t taken = 0;
    while (taken < text.size()) {
        std::size_t plain = taken;
        while (plain < text.size() && plain - taken < room && IsPlain(text[plain]))
            ++plain;
        line.append(text, taken, plain - taken);
        room -= plain - taken;
        taken = plain;
        if (taken == text.size() || room == 0)
            break;

        const bool backslash = text[taken] == '\\';
        const Character character = Decode(text.substr(taken));
        const bool printable = character.length > 0 && IsPrintable(character.code);
        // The bytes of a forbidden character are escaped together, so that a cut never leaves half of one.
        const std::size_t bytes = character.length > 0 ? character.length : 1;
        const std::size_t needed = backslash ? 2 : printable ? bytes : bytes * hexLength;
        if (needed > room)
            break;
        if (backslash)
            line += "\\\\";
        else if (printable)
            line.append(text, taken, bytes);
        else
            for (std::size_t i = 0; i < bytes; ++i)
                AppendHex(text[taken + i], line);
        room -= needed;
        taken += bytes;
    }
    return taken;
}

std::string Escaped(std::string_view text) {
    std::string line;
    AppendEscaped(text, std::numeric_limits<std::size_t>::max(), line);
    return line;
}

} // namespace OrvPlatform
