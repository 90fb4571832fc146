// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Journal.h"
#include "WaitUntil.h"

#include <algorithm>
#include <string>
#include <vector>

namespace OrvTest {

/// What has been logged since it was made.
class LogWatch {
public:
    LogWatch() { OrvPlatformFake::Journal::Clear(); }

    std::size_t Logged(const std::string& text) {
        const auto news = OrvPlatformFake::Journal::Take();
        log.insert(log.end(), news.begin(), news.end());
        const auto holds = [&](const std::string& line) { return line.find(text) != std::string::npos; };
        return static_cast<std::size_t>(std::count_if(log.begin(), log.end(), holds));
    }

    bool IsLogged(const std::string& text, std::size_t times = 1) {
        return WaitUntil([&] { return Logged(text) >= times; });
    }

private:
    std::vector<std::string> log;
};

} // namespace OrvTest
