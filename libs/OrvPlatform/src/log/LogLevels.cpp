// SPDX-License-Identifier: Apache-2.0
#include "log/LogLevels.h"

#include "CommonUtils/StringHelpers.h"
#include "base/Text.h"

#include <algorithm>
#include <array>
#include <optional>

namespace OrvPlatform {

namespace {

constexpr const char* BLANKS = " \t";

constexpr int HIGHEST = static_cast<int>(LogLevel::OFF);
constexpr std::array<const char*, HIGHEST + 1> NAMES = {"trace", "debug",    "info", "warning",
                                                        "error", "critical", "off"};

std::optional<LogLevel> LevelFrom(const std::string& word) {
    if (word.size() == 1 && word[0] >= '0' && word[0] <= '0' + HIGHEST)
        return static_cast<LogLevel>(word[0] - '0');
    const std::string lower = CommonUtils::StringHelpers::ToLower(word);
    for (std::size_t level = 0; level < NAMES.size(); ++level)
        if (lower == NAMES[level])
            return static_cast<LogLevel>(level);
    if (lower == "warn")
        return LogLevel::WARNING;
    if (lower == "err")
        return LogLevel::ERROR;
    return std::nullopt;
}

/// A logger's name as it can stand in a list: no blanks, commas or control characters.
bool IsName(const std::string& text) {
    constexpr std::size_t longest = 64;
    return !text.empty() && text.size() <= longest &&
           std::none_of(text.begin(), text.end(), [](char c) { return (c >= 0 && c <= ' ') || c == 0x7f; });
}

bool ApplyItem(const std::string& item, LogLevels& levels) {
    const auto equals = item.find('=');
    if (equals == std::string::npos) {
        const auto level = LevelFrom(item);
        if (level)
            levels.level = *level;
        return level.has_value();
    }
    const std::string logger(Trimmed(std::string_view(item).substr(0, equals), BLANKS));
    const auto level = LevelFrom(std::string(Trimmed(std::string_view(item).substr(equals + 1), BLANKS)));
    if (!IsName(logger) || !level)
        return false;
    const auto known = std::find_if(levels.loggers.begin(), levels.loggers.end(),
                                    [&logger](const auto& entry) { return entry.first == logger; });
    if (known != levels.loggers.end())
        known->second = *level;
    else
        levels.loggers.emplace_back(logger, *level);
    return true;
}

} // namespace

LogLevel LogLevels::Of(std::string_view logger) const {
    for (const auto& [name, own] : loggers)
        if (name == logger)
            return own;
    return level;
}

std::string LogLevels::Text() const {
    std::string text = LogLevelName(level);
    for (const auto& [name, own] : loggers)
        text += "," + name + "=" + LogLevelName(own);
    return text;
}

const char* LogLevelName(LogLevel level) {
    return NAMES[static_cast<std::size_t>(level)];
}

LogLevel LogLevelFrom(int number) {
    return static_cast<LogLevel>(std::clamp(number, 0, HIGHEST));
}

std::vector<std::string> ApplyLogLevels(std::string_view list, LogLevels& levels) {
    std::vector<std::string> unreadable;
    std::size_t begin = 0;
    while (begin <= list.size()) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        const std::string item(Trimmed(list.substr(begin, end - begin), BLANKS));
        if (!ApplyItem(item, levels))
            unreadable.push_back(item);
        begin = end + 1;
    }
    return unreadable;
}

} // namespace OrvPlatform
