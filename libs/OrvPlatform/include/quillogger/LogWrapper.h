// SPDX-License-Identifier: Apache-2.0
#pragma once

#pragma GCC visibility push(default)
namespace quillogger {

/// printf-style logging into the same sinks as CommonUtils::Logger.
class LogWrapper {
public:
    /// Emits one record, under the name of the file without folder and extension, by which the configuration may set
    /// its level too. The text is escaped and cut as in CommonUtils::Logger. Callable from any thread; never throws.
    /// @param level 0 trace, 1 debug, 2 info, 3 warning, 4 error, 5 critical
    /// @param flag  true to have the record on the storage before the call returns, where the sink is a file; without
    ///              it the record has been handed to the system. May take as long as the storage does.
    /// @param file, line, function  where the record comes from
    /// @param format  as for printf; the arguments must match it
    static void Log(int level, bool flag, const char* file, int line, const char* function, const char* format, ...)
        __attribute__((format(printf, 6, 7)));
};

} // namespace quillogger
#pragma GCC visibility pop
