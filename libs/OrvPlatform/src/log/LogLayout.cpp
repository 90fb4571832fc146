// SPDX-License-Identifier: Apache-2.0
#include "log/LogLayout.h"

#include <cstdint>
#include <cstdio>

namespace OrvPlatform {

namespace {

struct Date {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

/// Years are counted from March here, so that a leap day is a year's last.
Date DateOf(std::int64_t daysSince1970) {
    constexpr std::int64_t fromMarch0000To1970 = 719468;
    constexpr std::int64_t daysOf400Years = 146097;
    const std::int64_t days = daysSince1970 + fromMarch0000To1970;
    const std::int64_t era = (days >= 0 ? days : days - (daysOf400Years - 1)) / daysOf400Years;
    const auto dayOfEra = static_cast<unsigned>(days - era * daysOf400Years);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned month = (5 * dayOfYear + 2) / 153; // 0 is March
    const unsigned day = dayOfYear - (153 * month + 2) / 5 + 1;
    return {era * 400 + yearOfEra + (month >= 10 ? 1 : 0), month < 10 ? month + 3 : month - 9, day};
}

} // namespace

void AppendTime(std::chrono::system_clock::time_point time, std::string& line) {
    using Days = std::chrono::duration<std::int64_t, std::ratio<86400>>;
    const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
    const auto days = std::chrono::floor<Days>(sinceEpoch);
    const auto ofDay = static_cast<unsigned>((sinceEpoch - days).count());
    const Date date = DateOf(days.count());
    char text[48];
    const int size =
        std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02u:%02u:%02u.%03uZ", static_cast<long long>(date.year),
                      date.month, date.day, ofDay / 3'600'000, ofDay / 60'000 % 60, ofDay / 1000 % 60, ofDay % 1000);
    line.append(text, static_cast<std::size_t>(size));
}

void AppendRecord(LogLevel level, std::string_view logger, std::string_view text, std::string& line) {
    line += LogLevelName(level);
    line += " [";
    line += logger;
    line += "] ";
    line += text;
}

} // namespace OrvPlatform
