// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/StringHelpers.h"

#include "base/Text.h"

#include <algorithm>

namespace CommonUtils {

namespace {

char Upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

bool StringHelpers::CompareCaseInsensitive(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return Lower(a) == Lower(b); });
}

bool StringHelpers::ToBoolean(const std::string& text) {
    const std::string word = ToLower(std::string(OrvPlatform::Trimmed(text, " \t\r\n")));
    return word == "true" || word == "1" || word == "yes" || word == "on";
}

std::string StringHelpers::ToUpper(const std::string& text) {
    std::string result = text;
    std::transform(result.begin(), result.end(), result.begin(), Upper);
    return result;
}

std::string StringHelpers::ToLower(const std::string& text) {
    std::string result = text;
    std::transform(result.begin(), result.end(), result.begin(), Lower);
    return result;
}

std::vector<std::string> StringHelpers::Tokenize(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        if (end > begin)
            pieces.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return pieces;
}

} // namespace CommonUtils
