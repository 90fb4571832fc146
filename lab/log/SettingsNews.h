// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace OrvLab {

/// What the log may say of its settings, each once, and while the call runs that has read them.
class SettingsNews {
public:
    /// Lines of which one may be there. All of the same level.
    struct Choice {
        std::string from; ///< the times between which it is written; empty: at any time
        std::string to;
        std::string level;
        std::vector<std::string> beginnings;   ///< of the text behind the logger's name
        bool isWhole = true;                   ///< they are the whole text
        std::optional<std::size_t> taken = {}; ///< by that line
    };

    /// How the reports begin of what is wrong with these settings.
    /// @param before stands above the lines with the fault, and is right
    static std::vector<std::string> Faults(const std::string& file, const std::string& before,
                                           const std::string& fault);

    void May(Choice choice);
    /// A line is there.
    /// @param time, level empty where nobody has written them
    /// @return false when nothing has caused it
    bool Take(const std::string& time, const std::string& level, const std::string& text);
    /// Whether such a line may begin so, behind its level and the logger's name.
    bool MayBegin(const std::string& time, const std::string& level, const std::string& text) const;

private:
    struct Line {
        std::string time;
        std::string level;
        std::string text;
        bool MayBeOf(const Choice& choice) const;
    };

    bool Place(std::size_t line, std::vector<bool>& tried);

    std::vector<Line> lines;
    std::vector<Choice> choices;
};

} // namespace OrvLab
