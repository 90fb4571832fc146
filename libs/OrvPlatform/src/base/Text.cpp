// SPDX-License-Identifier: Apache-2.0
#include "base/Text.h"

#include <cstring>

namespace OrvPlatform {

std::string_view Trimmed(std::string_view text, std::string_view blanks) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string ErrorText(int error) {
    char buffer[128];
    return ::strerror_r(error, buffer, sizeof buffer);
}

} // namespace OrvPlatform
