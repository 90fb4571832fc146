// SPDX-License-Identifier: Apache-2.0
#pragma once

#pragma GCC visibility push(default)
namespace quillogger {

/// printf-style logging into the same sinks as CommonUtils::Logger.
class LogWrapper {
public:
    /// Emits one record. Its logger is the name of the file without folder and extension, and the configuration may set
    /// a level for that name. The text is escaped and cut as in CommonUtils::Logger. Callable on any thread; never
    /// throws.
    /// @param level 0 trace, 1 debug, 2 info, 3 warning, 4 error, 5 critical
    /// @param flag  true: with a file as the sink, the record is on the storage before the call returns, which may
    ///              take as long as the storage needs. false: the record has been handed to the system.
    /// @param file, line, function  where the record comes from
    /// @param format  as for printf; the arguments must match it
    static void Log(int level, bool flag, const char* file, int line, const char* function, const char* format, ...)
        __attribute__((format(printf, 6, 7)));
};

} // namespace quillogger
#pragma GCC visibility pop
