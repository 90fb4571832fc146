// SPDX-License-Identifier: Apache-2.0
#include "ClientIdSuffix.h"

#include <unistd.h>

#include <map>
#include <mutex>

namespace OrvPlatform {

namespace {

unsigned NextNumber(const std::string& clientId) {
    static std::mutex mutex;
    static std::map<std::string, unsigned> numbers;
    const std::lock_guard<std::mutex> lock(mutex);
    return ++numbers[clientId];
}

void Replace(std::string& text, const std::string& placeholder, const std::string& value) {
    for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += value.size())
        text.replace(at, placeholder.size(), value);
}

} // namespace

std::string ClientIdSuffix(const std::string& configured, const std::string& clientId) {
    std::string suffix = configured;
    Replace(suffix, "%p", std::to_string(getpid()));
    if (suffix.find("%n") != std::string::npos)
        Replace(suffix, "%n", std::to_string(NextNumber(clientId)));
    return suffix;
}

} // namespace OrvPlatform
