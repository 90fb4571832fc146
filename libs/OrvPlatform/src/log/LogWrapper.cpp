// SPDX-License-Identifier: Apache-2.0
#include "quillogger/LogWrapper.h"

#include "base/Tally.h"
#include "log/LogEscape.h"
#include "log/LogLevelsInForce.h"
#include "log/ProcessLog.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace quillogger {

namespace {

std::string_view OrEmpty(const char* text) {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

/// "libs/OrvStackSdk/src/OrvRoute.cpp" is the source "OrvRoute", as the logger of that class is called.
std::string_view SourceName(std::string_view file) {
    file.remove_prefix(std::min(file.size(), file.rfind('/') + 1));
    return file.substr(0, file.find('.'));
}

struct Message {
    char inPlace[512];
    std::unique_ptr<char[]> longer;
    std::string_view text;
    std::size_t bytes = 0;
};

__attribute__((format(printf, 2, 0))) void Format(Message& message, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): an error of the analyzer when it sees several files at once
    const int length = std::vsnprintf(message.inPlace, sizeof message.inPlace, format, arguments);
    message.bytes = static_cast<std::size_t>(std::max(length, 0));
    if (length < 0) {
        message.text = format;
        message.bytes = message.text.size();
    } else if (message.bytes < sizeof message.inPlace) {
        message.text = {message.inPlace, message.bytes};
    } else {
        const std::size_t kept = std::min(message.bytes, OrvPlatform::MAX_RECORD_BYTES);
        message.longer = std::make_unique<char[]>(kept + 1);
        std::vsnprintf(message.longer.get(), kept + 1, format, again);
        message.text = {message.longer.get(), kept};
    }
    va_end(again);
}

std::string LoggerName(std::string_view source, int line) {
    return source.empty() ? "LogWrapper" : OrvPlatform::Escaped(source) + ":" + std::to_string(line);
}

} // namespace

void LogWrapper::Log(int level, bool flag, const char* file, int line, const char* function, const char* format, ...) {
    const auto known = std::min(OrvPlatform::LogLevelFrom(level), OrvPlatform::LogLevel::CRITICAL);
    const std::string_view source = SourceName(OrEmpty(file));
    if (known < OrvPlatform::LogLevelsInForce().Of(source))
        return;
    va_list arguments;
    va_start(arguments, format);
    try {
        Message message;
        Format(message, format == nullptr ? "no text" : format, arguments);
        const std::string logger = LoggerName(source, line);
        OrvPlatform::ProcessLog().Write({known, logger, OrEmpty(function), message.text, message.bytes, flag});
    } catch (const std::exception&) {
        // No memory: the record is lost, the program is not.
        OrvPlatform::tallies.lostLogRecords.Add();
    }
    va_end(arguments);
}

} // namespace quillogger
