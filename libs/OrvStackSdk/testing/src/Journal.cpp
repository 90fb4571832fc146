// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/Testing/Journal.h"

#include "FakeLogger.h"
#include "Journal.h"
#include "Kit.h"
#include "VirtualTime.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <sstream>

namespace OrvStackSdk::Testing {

namespace {

std::mutex mutex;
std::vector<Journal::Entry> entries;

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string Together(const std::vector<std::string>& beginnings, bool timed) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::string text;
    for (const auto& entry : entries) {
        const bool wanted =
            beginnings.empty() || std::any_of(beginnings.begin(), beginnings.end(), [&](const std::string& beginning) {
                return BeginsWith(entry.what, beginning);
            });
        if (!wanted)
            continue;
        if (timed) {
            char time[32];
            std::snprintf(time, sizeof time, "%lld.%03d ", static_cast<long long>(entry.at.count() / 1000),
                          static_cast<int>(entry.at.count() % 1000));
            text += time;
        }
        text += entry.what + "\n";
    }
    return text;
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

void AddToJournal(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex);
    entries.push_back({VirtualTime::Now(), line});
}

void BeginJournal(int lowestLogLevel) {
    OrvPlatformFake::FakeLogger::SetLowestLevel(lowestLogLevel);
    OrvPlatformFake::Journal::Observe([lowestLogLevel](const std::string& line) {
        if (BeginsWith(line, "stop-delivery ") || (lowestLogLevel > 0 && BeginsWith(line, "wrapper trace ")))
            return;
        AddToJournal(line);
    });
    const std::lock_guard<std::mutex> lock(mutex);
    entries.clear();
}

void EndJournal() {
    OrvPlatformFake::Journal::Observe(nullptr);
    OrvPlatformFake::Journal::Clear();
}

std::vector<Journal::Entry> Journal::Entries() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return entries;
}

std::string Journal::Text(const std::vector<std::string>& beginnings) const {
    return Together(beginnings, false);
}

std::string Journal::TimedText(const std::vector<std::string>& beginnings) const {
    return Together(beginnings, true);
}

void Journal::Note(const std::string& line) {
    AddToJournal(line);
}

void Journal::Clear() {
    OrvPlatformFake::Journal::Clear();
    const std::lock_guard<std::mutex> lock(mutex);
    entries.clear();
}

std::string Difference(const std::string& expected, const std::string& happened) {
    const auto left = LinesOf(expected);
    const auto right = LinesOf(happened);
    if (left == right)
        return "";
    // common[i][j]: how many lines the ends from left[i] and right[j] on have in common, in order.
    std::vector<std::vector<std::size_t>> common(left.size() + 1, std::vector<std::size_t>(right.size() + 1));
    for (std::size_t i = left.size(); i-- > 0;)
        for (std::size_t j = right.size(); j-- > 0;)
            common[i][j] =
                left[i] == right[j] ? common[i + 1][j + 1] + 1 : std::max(common[i + 1][j], common[i][j + 1]);
    std::string text = "- expected, + happened\n";
    for (std::size_t i = 0, j = 0; i < left.size() || j < right.size();) {
        if (i < left.size() && j < right.size() && left[i] == right[j]) {
            text += "  " + left[i++] + "\n";
            ++j;
        } else if (j == right.size() || (i < left.size() && common[i + 1][j] >= common[i][j + 1])) {
            text += "- " + left[i++] + "\n";
        } else {
            text += "+ " + right[j++] + "\n";
        }
    }
    return text;
}

} // namespace OrvStackSdk::Testing
