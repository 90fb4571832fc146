// SPDX-License-Identifier: Apache-2.0
#include "config/GatewaySettings.h"

#include "CommonUtils/StringHelpers.h"
#include "base/IpAddress.h"
#include "base/Text.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <memory>
#include <numeric>
#include <sys/un.h>

namespace OrvPlatform {

namespace {

constexpr const char* LETTERS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr const char* DIGITS = "0123456789";

bool HasOnly(std::string_view text, const std::string& allowed) {
    return text.find_first_not_of(allowed) == std::string_view::npos;
}

bool HasControl(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return (c >= 0 && c < 0x20) || c == 0x7f; });
}

bool IsFilePath(const std::string& text) {
    return text.size() >= 2 && text.front() == '/' && text.back() != '/' && !HasControl(text);
}

bool IsHost(std::string_view text) {
    constexpr std::size_t longestName = 253;
    return !text.empty() && text.size() <= longestName && HasOnly(text, std::string(LETTERS) + DIGITS + "-._:%");
}

bool IsBrokerHost(const std::string& text) {
    return text == "localhost" || IsIpAddress(text);
}

/// @return false, and `number` unchanged, unless `text` is a decimal number from `least` to `most`
template <typename T>
bool ReadNumber(const std::string& text, T least, T most, T& number) {
    T value{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < least || value > most)
        return false;
    number = value;
    return true;
}

bool ReadText(const std::string& text, std::string& kept) {
    constexpr std::size_t longest = 128;
    if (text.size() > longest || HasControl(text))
        return false;
    kept = text;
    return true;
}

bool ReadInterface(const std::string& text, std::string& name) {
    constexpr std::size_t longestName = 15; // IFNAMSIZ less the final NUL
    if (text.empty() || text.size() > longestName || text == "." || text == ".." ||
        !HasOnly(text, std::string(LETTERS) + DIGITS + "-._@"))
        return false;
    name = text;
    return true;
}

/// host[:port][/path], without a scheme, because the library puts its own before it.
bool IsEndpoint(const std::string& text) {
    const std::size_t slash = std::min(text.find('/'), text.size());
    const std::string authority = text.substr(0, slash);
    const std::size_t bracket = authority.find(']');
    const bool numericSix = !authority.empty() && authority[0] == '[';
    if (numericSix && bracket == std::string::npos)
        return false;
    const std::size_t colon = std::min(authority.find(':', numericSix ? bracket : 0), authority.size());
    const std::string host = numericSix ? authority.substr(1, bracket - 1) : authority.substr(0, colon);
    if (!IsHost(host) || (numericSix && colon != bracket + 1))
        return false;
    std::uint16_t port = 0;
    if (colon < authority.size() && !ReadNumber<std::uint16_t>(authority.substr(colon + 1), 1, 65535, port))
        return false;
    return HasOnly(text.substr(slash), std::string(LETTERS) + DIGITS + "-._~:/?#[]@!$&'()*+,;=%");
}

const char* SinkName(LogSink sink) {
    switch (sink) {
    case LogSink::STDERR:
        return "stderr";
    case LogSink::SYSLOG:
        return "syslog";
    case LogSink::FILE:
        return "file";
    }
    return "stderr";
}

bool ReadSink(const std::string& text, GatewayConfig& config) {
    const std::string word = CommonUtils::StringHelpers::ToLower(text);
    for (const LogSink sink : {LogSink::STDERR, LogSink::SYSLOG, LogSink::FILE}) {
        if (word == SinkName(sink)) {
            config.log.sink = sink;
            return true;
        }
    }
    return false;
}

bool ReadLevels(const std::string& text, GatewayConfig& config) {
    LogLevels levels = GatewayConfig().log.levels;
    if (!ApplyLogLevels(text, levels).empty())
        return false;
    config.log.levels = levels;
    return true;
}

bool IsFilter(const std::string& text) {
    if (text.empty() || HasControl(text))
        return false;
    std::size_t begin = 0;
    for (std::size_t end = 0; end < text.size(); begin = end + 1) {
        end = std::min(text.find('/', begin), text.size());
        const std::string level = text.substr(begin, end - begin);
        const bool isLast = end == text.size();
        if (level.find_first_of("+#") != std::string::npos && level != "+" && !(level == "#" && isLast))
            return false;
    }
    return true;
}

bool ReadFilters(const std::string& text, std::vector<std::string>& kept) {
    std::vector<std::string> filters;
    for (const std::string& part : CommonUtils::StringHelpers::Tokenize(text, ','))
        filters.emplace_back(Trimmed(part, " "));
    if (!std::all_of(filters.begin(), filters.end(), IsFilter))
        return false;
    kept = filters;
    return true;
}

std::string JoinedFilters(const std::vector<std::string>& filters) {
    std::string list;
    for (const std::string& filter : filters)
        list += (list.empty() ? "" : ",") + filter;
    return list;
}

std::vector<Setting> BrokerSettings() {
    constexpr auto whenValid = Setting::Showing::WHEN_VALID; // the section has a password in it
    return {
        {"broker", "host", "an IPv4 or IPv6 address or localhost",
         [](const std::string& value, GatewayConfig& config) {
             if (!IsBrokerHost(value))
                 return false;
             config.broker.host = value;
             return true;
         },
         [](const GatewayConfig& config) { return config.broker.host; }, whenValid},
        {"broker", "port", "1 to 65535",
         [](const std::string& value, GatewayConfig& config) {
             return ReadNumber<std::uint16_t>(value, 1, 65535, config.broker.port);
         },
         [](const GatewayConfig& config) { return std::to_string(config.broker.port); }, whenValid},
        {"broker", "socket", "an absolute path of at most 107 bytes, or nothing",
         [](const std::string& value, GatewayConfig& config) {
             constexpr std::size_t longest = sizeof(sockaddr_un::sun_path) - 1;
             if (!value.empty() && (!IsFilePath(value) || value.size() > longest))
                 return false;
             config.broker.socket = value;
             return true;
         },
         [](const GatewayConfig& config) { return config.broker.socket; }, whenValid},
        {"broker", "username", "up to 128 bytes without control characters, or nothing",
         [](const std::string& value, GatewayConfig& config) { return ReadText(value, config.broker.username); },
         [](const GatewayConfig& config) { return config.broker.username; }, whenValid},
        {"broker", "password", "up to 128 bytes without control characters, or nothing",
         [](const std::string& value, GatewayConfig& config) { return ReadText(value, config.broker.password); },
         [](const GatewayConfig& config) { return config.broker.password; }, Setting::Showing::NEVER},
        {"broker", "client_id_suffix", "up to 32 letters, digits, '-', '_', '.', %a, %p and %n, or nothing",
         [](const std::string& value, GatewayConfig& config) {
             if (value.size() > 32 || !HasOnly(value, std::string(LETTERS) + DIGITS + "-_.%"))
                 return false;
             for (std::size_t at = 0; (at = value.find('%', at)) != std::string::npos; at += 2)
                 if (at + 1 == value.size() || std::string_view("apn").find(value[at + 1]) == std::string_view::npos)
                     return false;
             config.broker.clientIdSuffix = value;
             return true;
         },
         [](const GatewayConfig& config) { return config.broker.clientIdSuffix; }, whenValid},
        {"broker", "keep_alive", "5 to 3600 seconds",
         [](const std::string& value, GatewayConfig& config) {
             int seconds = 0;
             if (!ReadNumber(value, 5, 3600, seconds))
                 return false;
             config.broker.keepAlive = std::chrono::seconds(seconds);
             return true;
         },
         [](const GatewayConfig& config) { return std::to_string(config.broker.keepAlive.count()); }, whenValid},
        {"broker", "max_outstanding_bytes", "1024 to 67108864 bytes",
         [](const std::string& value, GatewayConfig& config) {
             return ReadNumber<std::size_t>(value, 1024, std::size_t{64} * 1024 * 1024,
                                            config.broker.maxOutstandingBytes);
         },
         [](const GatewayConfig& config) { return std::to_string(config.broker.maxOutstandingBytes); }, whenValid},
    };
}

std::vector<Setting> NetworkSettings() {
    constexpr const char* interfaceName = "an interface name of 1 to 15 characters, as `ip link` shows it";
    return {
        {"interfaces", "ethernet", interfaceName,
         [](const std::string& value, GatewayConfig& config) {
             return ReadInterface(value, config.interfaces.ethernet);
         },
         [](const GatewayConfig& config) { return config.interfaces.ethernet; }},
        {"interfaces", "cellular", interfaceName,
         [](const std::string& value, GatewayConfig& config) {
             return ReadInterface(value, config.interfaces.cellular);
         },
         [](const GatewayConfig& config) { return config.interfaces.cellular; }},
        {"cloud", "endpoint", "host[:port][/path] without a scheme, or nothing",
         [](const std::string& value, GatewayConfig& config) {
             if (!value.empty() && !IsEndpoint(value))
                 return false;
             config.cloud.endpoint = value;
             return true;
         },
         [](const GatewayConfig& config) { return config.cloud.endpoint; }, Setting::Showing::WHEN_VALID},
        {"connman", "bus_address", "a D-Bus address such as unix:path=/run/dbus/system_bus_socket, or nothing",
         [](const std::string& value, GatewayConfig& config) {
             if (!value.empty() && (value.find(':') == std::string::npos || HasControl(value)))
                 return false;
             config.connman.busAddress = value;
             return true;
         },
         [](const GatewayConfig& config) { return config.connman.busAddress; }},
    };
}

std::vector<Setting> ControllerSettings() {
    return {
        {"gateway", "controller", "the file name of a program, without its folder, or nothing",
         [](const std::string& value, GatewayConfig& config) {
             if (value.size() > NAME_MAX || value.find('/') != std::string::npos || HasControl(value))
                 return false;
             config.gateway.controller = value;
             return true;
         },
         [](const GatewayConfig& config) { return config.gateway.controller; }},
        {"gateway", "topics", "topic filters, separated by commas, or nothing",
         [](const std::string& value, GatewayConfig& config) { return ReadFilters(value, config.gateway.topics); },
         [](const GatewayConfig& config) { return JoinedFilters(config.gateway.topics); }},
    };
}

std::vector<Setting> LogSettings() {
    return {
        {"log", "sink", "stderr, syslog or file", ReadSink,
         [](const GatewayConfig& config) -> std::string { return SinkName(config.log.sink); }},
        {"log", "level", VALID_LOG_LEVELS, ReadLevels,
         [](const GatewayConfig& config) { return config.log.levels.Text(); }},
        {"log", "file", "an absolute path",
         [](const std::string& value, GatewayConfig& config) {
             if (!IsFilePath(value))
                 return false;
             config.log.file = value;
             return true;
         },
         [](const GatewayConfig& config) { return config.log.file; }},
        {"log", "file_max_bytes", "16384 to 1073741824 bytes",
         [](const std::string& value, GatewayConfig& config) {
             return ReadNumber<std::size_t>(value, 16384, std::size_t{1024} * 1024 * 1024, config.log.fileMaxBytes);
         },
         [](const GatewayConfig& config) { return std::to_string(config.log.fileMaxBytes); }},
        {"log", "file_count", "1 to 100",
         [](const std::string& value, GatewayConfig& config) {
             return ReadNumber<std::size_t>(value, 1, 100, config.log.fileCount);
         },
         [](const GatewayConfig& config) { return std::to_string(config.log.fileCount); }},
    };
}

/// How many insertions, removals and exchanges of one character lie between the two.
std::size_t Distance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= left.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (left[i - 1] == right[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[right.size()];
}

} // namespace

const std::vector<Setting>& Settings() {
    // Never destroyed, like the configuration itself.
    static const auto& all = *[] {
        auto settings = std::make_unique<std::vector<Setting>>(BrokerSettings());
        for (const auto& part : {NetworkSettings(), ControllerSettings(), LogSettings()})
            settings->insert(settings->end(), part.begin(), part.end());
        return settings.release();
    }();
    return all;
}

const Setting* FindSetting(std::string_view section, std::string_view key) {
    for (const Setting& setting : Settings())
        if (setting.section == section && setting.key == key)
            return &setting;
    return nullptr;
}

std::vector<std::string> SectionNames() {
    std::vector<std::string> names;
    for (const Setting& setting : Settings())
        if (names.empty() || names.back() != setting.section)
            names.push_back(setting.section);
    return names;
}

std::string Nearest(std::string_view word, const std::vector<std::string>& words) {
    const std::string lower = CommonUtils::StringHelpers::ToLower(std::string(word.substr(0, 64)));
    std::string nearest;
    std::size_t least = 3; // further away it is another word
    for (const std::string& candidate : words) {
        const std::size_t distance = Distance(lower, candidate);
        if (distance < least && distance < candidate.size() / 2 + 1) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

} // namespace OrvPlatform
