// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace OrvTest {

/// A regular expression as std::regex has it. A source that includes <regex> itself takes twice as long to compile.
class Pattern {
public:
    explicit Pattern(const std::string& expression);
    ~Pattern();
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    /// Whether all of the text is like that.
    bool Matches(const std::string& text) const;
    /// What matched and what each group of it matched, when all of the text is like that; otherwise empty.
    std::vector<std::string> Match(const std::string& text) const;
    /// The first group of each place in the text that is like that.
    std::vector<std::string> FindAll(const std::string& text) const;
    /// The text without what is like that.
    std::string Without(const std::string& text) const;

private:
    struct Compiled;
    std::unique_ptr<const Compiled> compiled;
};

} // namespace OrvTest
