// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/SharedWithTools.h"
#include "log/LogLevels.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace OrvPlatform {

enum class LogSink : int { STDERR, SYSLOG, FILE };

/// The gateway's settings, as read from /etc/orv/gateway.ini or from the file that ORV_GATEWAY_CONFIG names.
/// The initial values here are the documented defaults.
struct GatewayConfig {
    struct Broker {
        /// An IPv4 or IPv6 address or "localhost"; other names are not looked up, so that no name server can delay a
        /// connect.
        std::string host = "127.0.0.1";
        std::uint16_t port = 1883;
        /// The path of the broker's unix socket, in the place of host and port; empty for those.
        std::string socket;
        /// Appended to every client id of this process; see ClientIdSuffix.h for what the placeholders stand for.
        std::string clientIdSuffix = "-%a-%p-%n";
        std::chrono::seconds keepAlive{5};
        /// How the applications of this gateway identify themselves to the broker; both empty for an open broker.
        std::string username;
        std::string password;
        /// Bytes handed over but not yet taken by the broker; a publication beyond this is refused.
        std::size_t maxOutstandingBytes = std::size_t{256} * 1024;
    } broker;

    struct Interfaces {
        std::string ethernet = "eth0";
        std::string cellular = "wwan0";
    } interfaces;

    struct Cloud {
        /// host[:port][/path]
        std::string endpoint;
    } cloud;

    struct Log {
        LogSink sink = LogSink::STDERR;
        LogLevels levels;
        std::string file;
        std::size_t fileMaxBytes = std::size_t{1024} * 1024;
        /// All files together, the current one included.
        std::size_t fileCount = 3;
    } log;

    struct Connman {
        /// The message bus on which the connection manager is reached; empty for the system bus.
        std::string busAddress;
    } connman;

    struct Gateway {
        /// The program that alone may order the connection manager about and publish on the gateway's topics; empty for
        /// no such program.
        std::string controller;
        /// Filters of the topics on which an application speaks for the whole gateway.
        std::vector<std::string> topics{"/orv/led/+", "/orv/apps_control/features/Ent/status/+",
                                        "/orv/network/wan/inhibit_dns"};
    } gateway;

    /// What this process runs, see ProgramName(). No setting.
    std::string program;

    /// Whether this process may speak for the gateway.
    bool IsController() const { return gateway.controller.empty() || gateway.controller == program; }
};

/// What a configuration text says, and what is wrong with it.
struct ParsedConfig {
    GatewayConfig config;
    /// One line of text each: name, line, value, what is valid, what stays in force. Empty: all is well.
    std::vector<std::string> problems;
};

/// Reads settings from `text`. A pure function. What cannot be read leaves the default in force and is reported.
/// @param name what the text is called in reports, usually the file's path
/// @param inForce what it is put on top of, and what reports call in force
ParsedConfig ParseGatewayConfig(std::string_view text, const std::string& name, const GatewayConfig& inForce = {});

/// A configuration as it was found on the system.
struct LoadedConfig : ParsedConfig {
    /// What is worth knowing but no fault.
    std::vector<std::string> warnings; // who may read or change the file and should not
    std::vector<std::string> notices;  // for a log at level info: what this program may not do
    std::vector<std::string> notes;    // at level debug, e.g. which file was read
};

/// Reads the file at `path`. A file that cannot be read is a problem, except that a missing one is none when
/// `mayBeMissing`.
/// @param inForce  the settings that a program runs with already, which then are what reports call in force; null
///                 at the start, when those are the defaults
LoadedConfig ReadGatewayConfig(const std::string& path, bool mayBeMissing, const GatewayConfig* inForce = nullptr);

/// The file that the environment names, or the default one, with ORV_LOG_LEVEL, ORV_CLIENT_ID_SUFFIX and
/// ORV_GATEWAY_CONTROLLER applied. Reports nothing.
ORV_SHARED_WITH_TOOLS LoadedConfig LoadGatewayConfig();

/// The levels of the log as the file and the environment have them at this moment.
struct RereadLogLevels {
    LogLevels levels;
    std::string file;                  // escaped
    std::vector<std::string> problems; // of the whole file
};
/// @param inForce the settings that the program runs with; their levels stay when there is a problem
RereadLogLevels LogLevelsReadAnew(const GatewayConfig& inForce);

/// Every setting in the form of the configuration file, one line of text each, section lines included.
std::string ShowGatewayConfig(const GatewayConfig& config);

/// The settings of this process, read once on first use. What is wrong with them is reported once, on stderr and in the
/// log, and the defaults stand in for what could not be read. Callable from any thread, also during static destruction;
/// never throws. ProcessWide.cpp owns them.
const GatewayConfig& Config();

} // namespace OrvPlatform
