// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#pragma GCC visibility push(default)
namespace CommonUtils {

/// Text helpers for names and payloads. Bytes are treated as ASCII: whatever the locale, only A-Z and a-z have a case.
/// Pure functions, callable from any thread; they fail only when memory runs out (std::bad_alloc).
class StringHelpers {
public:
    /// True when the two are equal, ignoring case.
    static bool CompareCaseInsensitive(const std::string& left, const std::string& right);

    /// True for "true", "1", "yes" and "on" in any case, without regard to blanks around them; false for all else.
    static bool ToBoolean(const std::string& text);

    static std::string ToUpper(const std::string& text); ///< a-z become A-Z.
    static std::string ToLower(const std::string& text); ///< A-Z become a-z.

    /// The pieces of `text` between separators, in order. Empty pieces are left out, so that neither a leading, a
    /// doubled nor a trailing separator makes a piece; an empty text gives an empty list.
    static std::vector<std::string> Tokenize(const std::string& text, char separator);
};

} // namespace CommonUtils
#pragma GCC visibility pop
