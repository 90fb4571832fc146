// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace OrvPlatform {

enum class LogSink : int { STDERR, SYSLOG, FILE };

/// The gateway's settings, as read from /etc/orv/gateway.ini or from the file that ORV_GATEWAY_CONFIG names.
/// The initial values here are the documented defaults.
struct GatewayConfig {
    struct Broker {
        std::string host = "127.0.0.1";
        std::uint16_t port = 1883;
        /// Appended to every client id of this process; see the shipped gateway.ini for why.
        std::string clientIdSuffix;
        std::chrono::seconds keepAlive{5};
        /// Bytes handed over but not yet taken by the broker; a publication beyond this is refused.
        std::size_t maxOutstandingBytes = 256 * 1024;
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
        int level = 2; // 0 trace ... 5 critical, 6 off
        std::string file;
        std::size_t fileMaxBytes = 1024 * 1024;
        std::size_t fileCount = 3;
    } log;

    struct Connman {
        /// The message bus on which the connection manager is reached; empty for the system bus.
        std::string busAddress;
        /// True to answer from a scripted stand-in instead of a real connection manager.
        bool scripted = false;
    } connman;
};

/// The settings of this process, read once on first use. A broken file is reported on stderr with file, line and
/// remedy, and the defaults stand in for what could not be read. Callable from any thread; never throws.
const GatewayConfig& Config();

} // namespace OrvPlatform
