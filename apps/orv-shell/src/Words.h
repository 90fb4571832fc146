// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace OrvShell {

using Words = std::vector<std::string>;

/// Splits a command line at blanks. A word may hold blanks inside 'single' or "double" quotes; inside double quotes and
/// outside of quotes a backslash takes the next character literally, but for \n, \r, \t, \0 and \xHH (two hexadecimal
/// digits). A "#" at the beginning of a word starts a comment.
/// @throws CommandError for an unfinished quote or escape
Words SplitLine(const std::string& line);

/// The text as one word that SplitLine turns back into it: bare where that is possible, otherwise in double quotes.
std::string Quote(const std::string& text);

/// The text as one line that steers no terminal: control characters (C1 too), line separators, characters that change
/// the direction of writing, and bytes that are not valid UTF-8 as \xHH.
std::string Printable(const std::string& text);

std::string Join(const Words& words, const std::string& separator);

} // namespace OrvShell
