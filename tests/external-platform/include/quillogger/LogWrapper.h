// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace quillogger {

class LogWrapper {
public:
    static void Log(int level, bool flag, const char* file, int line, const char* function, const char* format, ...);
};

} // namespace quillogger
