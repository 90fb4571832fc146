// SPDX-License-Identifier: Apache-2.0
#include "broker/ClientIdSuffix.h"

#include "broker/ProcessLock.h"

#include <unistd.h>

#include <map>

namespace OrvPlatform {

namespace {

unsigned NextNumber(const std::string& clientId) {
    const ProcessLock lock;
    static std::map<std::string, unsigned> numbers;
    return ++numbers[clientId];
}

void Replace(std::string& text, const std::string& placeholder, const std::string& value) {
    for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += value.size())
        text.replace(at, placeholder.size(), value);
}

/// The name in characters that every broker takes for a client id.
std::string PlainName(const std::string& program) {
    constexpr std::size_t longest = 32;
    std::string name = program.substr(0, longest);
    const std::string taken = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
    for (std::size_t at = 0; (at = name.find_first_not_of(taken, at)) != std::string::npos;)
        name[at] = '_';
    return name;
}

} // namespace

std::string ClientIdSuffix(const std::string& configured, const std::string& clientId, const std::string& program) {
    std::string suffix = configured;
    Replace(suffix, "%a", PlainName(program));
    Replace(suffix, "%p", std::to_string(getpid()));
    if (suffix.find("%n") != std::string::npos)
        Replace(suffix, "%n", std::to_string(NextNumber(clientId)));
    return suffix;
}

} // namespace OrvPlatform
