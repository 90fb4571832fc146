// SPDX-License-Identifier: Apache-2.0
// A gateway maker's platform, as small as it can be: everything stays in the process, every log record and every
// publication goes to standard output.
#include "CommonUtils/Logger.h"
#include "CommonUtils/Networking/ConnmanCommands.h"
#include "ConnInterfaceString.h"
#include "GatewayMainBaseUnits/IpInterfacesMapping.h"
#include "OrvResources/StaticConfigStore.h"
#include "quillogger/LogWrapper.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

std::string ConnInterfaceString;

namespace CommonUtils {

LogObject::LogObject(const std::string& logger, const char* tag) {
    text << "log " << logger << ": " << (tag ? tag : "");
}

LogObject::~LogObject() {
    if (!text.str().empty())
        std::puts(text.str().c_str());
}

Logger::Logger(const std::string& loggerName, int) : name(loggerName) {}

LogObject Logger::Trace(const char* tag) const {
    return {name, tag};
}

LogObject Logger::Debug(const char* tag) const {
    return {name, tag};
}

LogObject Logger::Info(const char* tag) const {
    return {name, tag};
}

LogObject Logger::Warning(const char* tag) const {
    return {name, tag};
}

LogObject Logger::Error(const char* tag) const {
    return {name, tag};
}

} // namespace CommonUtils

namespace quillogger {

void LogWrapper::Log(int, bool, const char*, int, const char*, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::puts("");
}

} // namespace quillogger

namespace CommonUtils {
namespace Networking {

ConnmanCommands& ConnmanCommands::GetInstance() {
    static ConnmanCommands instance;
    return instance;
}

std::string ConnmanCommands::GetTopPriorityInterface() {
    return top;
}

bool ConnmanCommands::SetTopPriorityInterface(const std::string& interfaceName) {
    top = interfaceName;
    std::printf("top %s\n", top.c_str());
    return true;
}

bool ConnmanCommands::SetDnsConfiguration(const std::string&, const std::string&, const std::string&) {
    return true;
}

} // namespace Networking
} // namespace CommonUtils

namespace GatewayMainBaseUnits {

IpInterfacesMapping& IpInterfacesMapping::GetInstance() {
    static IpInterfacesMapping instance;
    return instance;
}

std::string IpInterfacesMapping::GetInterfaceName(const std::string& role) const {
    return role == "Ethernet" ? "lan0" : "modem0";
}

} // namespace GatewayMainBaseUnits

namespace OrvResources {

namespace {

class FixedConfig : public IStaticConfigStore {
public:
    std::string GetValue(const int&) override { return "127.0.0.1:9"; }
};

} // namespace

std::unique_ptr<IStaticConfigStore> CreateStaticConfigStore() {
    return std::make_unique<FixedConfig>();
}

} // namespace OrvResources
