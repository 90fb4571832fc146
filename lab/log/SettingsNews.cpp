// SPDX-License-Identifier: Apache-2.0
#include "log/SettingsNews.h"

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <utility>

namespace OrvLab {

namespace {

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.rfind(beginning, 0) == 0;
}

bool IsThen(const SettingsNews::Choice& choice, const std::string& time) {
    return time.empty() || choice.from.empty() || (choice.from <= time && time <= choice.to);
}

bool IsAt(const SettingsNews::Choice& choice, const std::string& time, const std::string& level) {
    return IsThen(choice, time) && (level.empty() || level == choice.level);
}

std::string KeyOf(const std::string& line) {
    const std::size_t sign = line.find(" = ");
    return sign == std::string::npos ? std::string() : line.substr(0, sign);
}

/// What is said of a line that is wrong in any settings; empty for one that may be right.
std::string WrongWith(const std::string& section, const std::string& line) {
    if (line.find('\0') != std::string::npos)
        return "the line holds NUL bytes and is ignored";
    if (line.front() == '[' && line.back() != ']')
        return "a section without its closing bracket";
    if (line == "[nowhere]")
        return "there is no such section, what it holds is ignored";
    if (line.front() == '[' || line == "sink = stderr")
        return {};
    const std::string key = KeyOf(line);
    if (key.empty())
        return "the line is neither a section, a comment nor key = value, ignored";
    if (key == "colour")
        return "[" + section + "] has no such key, ignored";
    const std::string value = line.substr(key.size() + 3);
    // What stands near a password is not shown.
    return "[" + section + "] " + key + " = " + (section == "broker" ? "(not shown)" : "\"" + value + "\"") +
           " is not valid, ";
}

} // namespace

std::vector<std::string> SettingsNews::Faults(const std::string& file, const std::string& before,
                                              const std::string& fault) {
    std::vector<std::string> earlier;
    std::istringstream right(before);
    for (std::string line; std::getline(right, line);)
        earlier.push_back(line);
    std::size_t number = earlier.size();
    std::string section = "log";
    std::vector<std::string> faults;
    std::istringstream wrong(fault);
    for (std::string line; std::getline(wrong, line);) {
        ++number;
        const std::string place = file + ":" + std::to_string(number) + ": ";
        const std::string key = KeyOf(line);
        const auto first = std::find_if(earlier.begin(), earlier.end(), [&](const std::string& other) {
            return !key.empty() && section == "log" && KeyOf(other) == key;
        });
        if (first != earlier.end())
            faults.push_back(place + "[log] " + key + " was set in line " +
                             std::to_string(first - earlier.begin() + 1) + " already; the later value counts");
        const std::string what = WrongWith(section, line);
        if (!what.empty())
            faults.push_back(place + what);
        if (line == "[broker]")
            section = "broker";
    }
    return faults;
}

void SettingsNews::May(Choice choice) {
    if (!choice.beginnings.empty())
        choices.push_back(std::move(choice));
}

bool SettingsNews::Line::MayBeOf(const Choice& choice) const {
    return IsAt(choice, time, level) &&
           std::any_of(choice.beginnings.begin(), choice.beginnings.end(), [&](const std::string& beginning) {
               return choice.isWhole ? text == beginning : BeginsWith(text, beginning);
           });
}

bool SettingsNews::Take(const std::string& time, const std::string& level, const std::string& text) {
    lines.push_back({time, level, text});
    std::vector<bool> tried(choices.size());
    if (Place(lines.size() - 1, tried))
        return true;
    lines.pop_back();
    return false;
}

/// One that is another line's already may be had when there is another one for that line.
bool SettingsNews::Place(std::size_t line, std::vector<bool>& tried) {
    for (std::size_t index = 0; index < choices.size(); ++index) {
        if (tried[index] || !lines[line].MayBeOf(choices[index]))
            continue;
        tried[index] = true;
        std::optional<std::size_t>& taken = choices[index].taken;
        if (!taken || Place(*taken, tried)) {
            taken = line;
            return true;
        }
    }
    return false;
}

bool SettingsNews::MayBegin(const std::string& time, const std::string& level, const std::string& text) const {
    return std::any_of(choices.begin(), choices.end(), [&](const Choice& choice) {
        return IsAt(choice, time, level) &&
               std::any_of(choice.beginnings.begin(), choice.beginnings.end(), [&](const std::string& beginning) {
                   return BeginsWith(beginning, text) || (!choice.isWhole && BeginsWith(text, beginning));
               });
    });
}

} // namespace OrvLab
