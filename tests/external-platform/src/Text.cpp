// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/StringHelpers.h"

#include <algorithm>
#include <sstream>
#include <strings.h>

namespace CommonUtils {

bool StringHelpers::CompareCaseInsensitive(const std::string& left, const std::string& right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool StringHelpers::ToBoolean(const std::string& text) {
    return CompareCaseInsensitive(text, "true");
}

std::string StringHelpers::ToUpper(const std::string& text) {
    std::string upper = text;
    for (char& letter : upper)
        if (letter >= 'a' && letter <= 'z')
            letter = static_cast<char>(letter - 'a' + 'A');
    return upper;
}

std::string StringHelpers::ToLower(const std::string& text) {
    std::string lower = text;
    for (char& letter : lower)
        if (letter >= 'A' && letter <= 'Z')
            letter = static_cast<char>(letter - 'A' + 'a');
    return lower;
}

std::vector<std::string> StringHelpers::Tokenize(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);)
        if (!piece.empty())
            pieces.push_back(piece);
    return pieces;
}

} // namespace CommonUtils
