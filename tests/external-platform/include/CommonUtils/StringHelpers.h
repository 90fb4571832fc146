// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace CommonUtils {

class StringHelpers {
public:
    static bool CompareCaseInsensitive(const std::string& left, const std::string& right);
    static bool ToBoolean(const std::string& text);
    static std::string ToUpper(const std::string& text);
    static std::string ToLower(const std::string& text);
    static std::vector<std::string> Tokenize(const std::string& text, char separator);
};

} // namespace CommonUtils
