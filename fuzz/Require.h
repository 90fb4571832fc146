// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace OrvFuzz {

/// Ends the run, as a finding, when what must hold does not.
inline void Require(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

/// True for well-formed UTF-8 without any control character, written down byte range by byte range (Unicode 15, table
/// 3-7), so that it shares nothing with the code that is under test.
inline bool IsOneCleanLine(std::string_view text) {
    const auto between = [&text](std::size_t i, unsigned low, unsigned high) {
        return i < text.size() && static_cast<unsigned char>(text[i]) >= low &&
               static_cast<unsigned char>(text[i]) <= high;
    };
    const auto tail = [&between](std::size_t i) { return between(i, 0x80, 0xbf); };
    std::size_t i = 0;
    while (i < text.size()) {
        if (between(i, 0x20, 0x7e))
            i += 1;
        else if ((between(i, 0xc2, 0xc2) && between(i + 1, 0xa0, 0xbf)) || (between(i, 0xc3, 0xdf) && tail(i + 1)))
            i += 2;
        else if ((between(i, 0xe0, 0xe0) && between(i + 1, 0xa0, 0xbf) && tail(i + 2)) ||
                 (between(i, 0xe1, 0xec) && tail(i + 1) && tail(i + 2)) ||
                 (between(i, 0xed, 0xed) && between(i + 1, 0x80, 0x9f) && tail(i + 2)) ||
                 (between(i, 0xee, 0xef) && tail(i + 1) && tail(i + 2)))
            i += 3;
        else if ((between(i, 0xf0, 0xf0) && between(i + 1, 0x90, 0xbf) && tail(i + 2) && tail(i + 3)) ||
                 (between(i, 0xf1, 0xf3) && tail(i + 1) && tail(i + 2) && tail(i + 3)) ||
                 (between(i, 0xf4, 0xf4) && between(i + 1, 0x80, 0x8f) && tail(i + 2) && tail(i + 3)))
            i += 4;
        else
            return false;
    }
    return text.find("\xe2\x80\xa8") == std::string_view::npos && text.find("\xe2\x80\xa9") == std::string_view::npos;
}

} // namespace OrvFuzz
