// SPDX-License-Identifier: Apache-2.0
#include "Transcript.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace GatewayApp {

namespace {

std::string Monotonic() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char text[40];
    std::snprintf(text, sizeof(text), "%lld.%06d", static_cast<long long>(now.tv_sec),
                  static_cast<int>(now.tv_nsec / 1000));
    return text;
}

} // namespace

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
    file.reset(std::fopen(path.c_str(), "ae"));
    if (!file)
        throw std::system_error(errno, std::generic_category(), "open the transcript '" + path + "'");
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
}

void Transcript::Write(const std::string& what, const Fields& fields) {
    if (!file)
        return;
    std::string line = torn ? "\n" : "";
    line += "{\"time\":\"" + WallClock() + "\",\"monotonic\":" + Monotonic() + ",\"what\":" + JsonText(what);
    for (const auto& [name, value] : fields)
        line += ',' + JsonText(name) + ':' + value;
    if (lost != 0)
        line += ",\"lost_before\":" + std::to_string(lost);
    line += "}\n";
    const std::size_t written = std::fwrite(line.data(), 1, line.size(), file.get());
    std::clearerr(file.get());
    if (written > 0)
        torn = written < line.size();
    lost = written == line.size() ? 0 : lost + 1;
}

} // namespace GatewayApp
