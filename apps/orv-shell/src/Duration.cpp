// SPDX-License-Identifier: Apache-2.0
#include "Duration.h"

#include "CommandError.h"
#include "Words.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace OrvShell {

namespace {

struct Unit {
    const char* name;
    std::int64_t milliseconds;
};

constexpr std::array<Unit, 4> UNITS{{{"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}}};
constexpr std::int64_t LONGEST = 24 * std::int64_t{3'600'000};

[[noreturn]] void Refuse(const std::string& text) {
    throw CommandError("not a duration: " + Quote(text) +
                       "; write a number and a unit (ms, s, m, h), at most 24h, e.g. 100ms or 1.5s");
}

// Digits with at most one point among them, in thousandths.
std::int64_t Thousandths(const std::string& number, const std::string& text) {
    std::int64_t value = 0;
    int decimals = -1;
    for (const char c : number) {
        if (c == '.' && decimals < 0) {
            decimals = 0;
            continue;
        }
        if (c < '0' || c > '9' || decimals == 3 || value > LONGEST)
            Refuse(text);
        value = value * 10 + (c - '0');
        decimals += decimals < 0 ? 0 : 1;
    }
    for (int place = std::max(decimals, 0); place < 3; ++place)
        value *= 10;
    return value;
}

} // namespace

std::chrono::milliseconds ParseDuration(const std::string& text) {
    const std::size_t end = std::min(text.find_first_not_of("0123456789."), text.size());
    const std::string number = text.substr(0, end);
    if (number.empty() || number.front() == '.' || number.back() == '.')
        Refuse(text);
    const std::string unit = text.substr(end);
    const std::int64_t thousandths = Thousandths(number, text);
    if (unit.empty() && thousandths == 0)
        return std::chrono::milliseconds(0);
    for (const Unit& candidate : UNITS) {
        if (unit != candidate.name)
            continue;
        if (thousandths > LONGEST * 1000 / candidate.milliseconds)
            Refuse(text);
        return std::chrono::milliseconds(thousandths * candidate.milliseconds / 1000);
    }
    Refuse(text);
}

std::string DurationText(std::chrono::milliseconds duration) {
    const std::int64_t count = duration.count();
    for (auto unit = UNITS.rbegin(); unit != UNITS.rend(); ++unit) {
        if (count != 0 && count % unit->milliseconds == 0)
            return std::to_string(count / unit->milliseconds) + unit->name;
    }
    return "0";
}

} // namespace OrvShell
