// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProcess.h"
#include "log/LogChannel.h"

#include <string>
#include <vector>

namespace OrvPlatform::Testing {

using Lines = std::vector<std::string>;

inline Lines LinesIn(const std::string& path) {
    Lines lines;
    for (const std::string& line : SplitLines(Content(path)))
        lines.push_back(WithoutTime(line));
    return lines;
}

inline void LogInfo(LogChannel& log, const std::string& text, bool flush = false) {
    LogRecord record{LogLevel::INFO, "Test", {}, text};
    record.flush = flush;
    log.Write(record);
}

} // namespace OrvPlatform::Testing
