// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace GatewayApp {

/// A moment by both clocks: the wall's for people, the monotonic one for programs, because the wall's may jump.
struct Moment {
    std::string utc;
    double monotonic = 0; ///< seconds of CLOCK_MONOTONIC

    static Moment Now();
};

/// A count of the kernel's that begins anew when its interface is made anew, as one that only grows.
class GrowingCount {
public:
    /// What is there at the beginning does not count.
    void Observe(std::uint64_t present);
    std::uint64_t Value() const { return value; }

private:
    std::optional<std::uint64_t> last;
    std::uint64_t value = 0;
};

/// What the application tells about itself in its status file; docs/status.md describes each field. Paths are
/// "ethernet", "cellular", "other" and "none".
struct RunStatus {
    static constexpr int VERSION = 1;

    struct Move {
        Moment at;
        std::string from, to, reason;
        double tookSeconds = 0;
    };
    struct Poke {
        Moment at;
        std::string path;
        bool good = false;
        std::optional<int> code; ///< libcurl's, where it is known
        std::optional<double> atMostSeconds;
        std::string text; ///< why it failed
        std::string knownFrom;
    };
    struct Counters {
        std::uint64_t failOvers = 0, returns = 0, cloudLosses = 0;
        double secondsOnEthernet = 0, secondsOnCellular = 0;
        std::optional<std::uint64_t> brokerLosses, refusedPublications, lostLogRecords;
        std::uint64_t cellularReceivedBytes = 0, cellularSentBytes = 0;
    };

    std::string name;
    bool running = true;
    Moment started;

    bool sessionReady = false; ///< the client library has its session with the gateway's broker

    std::string cloudState; ///< "connected", "disconnected", "disabled"
    std::string cloudPath;  ///< by which the connection runs; "none" without one
    std::string cloudInterface, cloudFamily, cloudSource, cloudHost;
    Moment cloudSince;
    std::string cloudReason;  ///< of the last change
    std::string cloudFailure; ///< of the last attempt that failed; empty after a success

    std::string routePath; ///< where the kernel's default route leads
    std::string routeInterface;
    Moment routeSince;
    std::string expectedPath; ///< the client library's ConnInterfaceString
    bool probation = false;
    std::string hindrance; ///< why Cellular does not take over while the cloud is lost on Ethernet
    std::optional<Move> lastMove;

    std::deque<Poke> pokes; ///< the latest first

    std::uint64_t ticks = 0;
    std::int64_t longestTickUs = 0;
    Counters counters;

    /// One JSON object, a line of text.
    std::string Json(const Moment& written) const;
};

/// Replaces the file by `text` in one step: who reads it sees the old or the new text, never a part. The folder must
/// exist.
/// @return empty on success, otherwise why not
std::string ReplaceFile(const std::string& path, const std::string& text);

} // namespace GatewayApp
