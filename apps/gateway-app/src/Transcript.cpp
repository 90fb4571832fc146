// SPDX-License-Identifier: Apache-2.0
#include "Transcript.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace GatewayApp {

namespace {

std::string WallClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char text[40];
    const std::size_t size = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + size, sizeof(text) - size, ".%03dZ", static_cast<int>(now.tv_nsec / 1000000));
    return text;
}

std::string Monotonic() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char text[40];
    std::snprintf(text, sizeof(text), "%lld.%06d", static_cast<long long>(now.tv_sec),
                  static_cast<int>(now.tv_nsec / 1000));
    return text;
}

} // namespace

std::string JsonText(const std::string& text) {
    std::string json = "\"";
    for (const char character : text) {
        const bool printable = character >= ' ' && character <= '~';
        if (character == '"' || character == '\\')
            json += '\\';
        json += printable ? character : '?';
    }
    return json + '"';
}

Transcript::Transcript(const std::string& path) {
    if (path.empty())
        return;
    file.open(path, std::ios::app);
    if (!file)
        throw std::system_error(errno, std::generic_category(), "open the transcript '" + path + "'");
}

void Transcript::Write(const std::string& what, const Fields& fields) {
    if (!file.is_open())
        return;
    file << "{\"time\":\"" << WallClock() << "\",\"monotonic\":" << Monotonic() << ",\"what\":" << JsonText(what);
    for (const auto& [name, value] : fields)
        file << ',' << JsonText(name) << ':' << value;
    file << '}' << std::endl; // whoever follows the file wants the line now
}

} // namespace GatewayApp
