// SPDX-License-Identifier: Apache-2.0
#include "Pattern.h"

#include <regex>

namespace OrvTest {

struct Pattern::Compiled {
    std::regex expression;
};

Pattern::Pattern(const std::string& expression) : compiled(new Compiled{std::regex(expression)}) {}

Pattern::~Pattern() = default;

bool Pattern::Matches(const std::string& text) const {
    return std::regex_match(text, compiled->expression);
}

std::vector<std::string> Pattern::Match(const std::string& text) const {
    std::smatch match;
    std::regex_match(text, match, compiled->expression);
    return {match.begin(), match.end()};
}

std::vector<std::string> Pattern::FindAll(const std::string& text) const {
    std::vector<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), compiled->expression), end; at != end; ++at)
        found.push_back((*at)[1]);
    return found;
}

std::string Pattern::Without(const std::string& text) const {
    return std::regex_replace(text, compiled->expression, "");
}

} // namespace OrvTest
