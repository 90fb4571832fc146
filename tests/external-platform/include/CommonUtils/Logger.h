// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sstream>
#include <string>

namespace CommonUtils {

class LogObject {
public:
    LogObject(const std::string& logger, const char* tag);
    LogObject(LogObject&&) = default;
    LogObject& operator=(LogObject&&) = default;
    ~LogObject();

    template <typename T>
    LogObject& operator<<(const T& value) {
        text << value;
        return *this;
    }

private:
    std::ostringstream text;
};

class Logger {
public:
    Logger(const std::string& name, int level);
    LogObject Trace(const char* tag = nullptr) const;
    LogObject Debug(const char* tag = nullptr) const;
    LogObject Info(const char* tag = nullptr) const;
    LogObject Warning(const char* tag = nullptr) const;
    LogObject Error(const char* tag = nullptr) const;

private:
    std::string name;
};

} // namespace CommonUtils
