// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/SharedWithTools.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace OrvPlatform {

/// Appends `text` to `line` in a form that is one line of valid UTF-8 whatever the bytes of `text` are.
///
/// Kept as they are: printable ASCII except the backslash, and well-formed UTF-8 of a printable character.
/// A backslash is doubled. Every other byte becomes \xNN (two lower-case hexadecimal digits): control characters
/// (below 0x20, 0x7f, U+0080 to U+009F), line and paragraph separators (U+2028, U+2029), characters that reorder or
/// hide what is shown (U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069, U+FEFF), and each byte that is no
/// well-formed UTF-8 (overlong forms, surrogates, above U+10FFFF, cut sequences). So the original bytes can be had
/// back, and no text can end a line, begin another or steer a terminal.
///
/// @param room the most bytes to append; a character that does not fit whole is left out, and what follows it too
/// @return how many bytes of `text` were taken
std::size_t AppendEscaped(std::string_view text, std::size_t room, std::string& line);

/// All of `text` in that form.
ORV_SHARED_WITH_TOOLS std::string Escaped(std::string_view text);

} // namespace OrvPlatform
