// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace OrvStatus {

/// Whether a part could be asked. AWAY is an answer: it is known not to be there. REFUSING is a broker that is there
/// and takes no connection from this program.
enum class Known : int { UNKNOWN, AWAY, REFUSING, PRESENT };

/// What the gateway's broker told. Texts come from other programs and are escaped already, see Escaped().
struct BrokerView {
    struct Message {
        std::string payload;          ///< its beginning
        std::size_t bytes = 0;        ///< how long it was
        std::optional<bool> retained; ///< by the broker; nothing where the broker does not tell
    };
    Known state = Known::UNKNOWN;
    std::string address;
    std::string reason;    ///< why it is not PRESENT
    bool complete = false; ///< all retained messages have come
    std::size_t left = 0;  ///< topics that were left out, because there are too many
    std::map<std::string, Message> topics;
};

/// What the kernel told.
struct NetworkView {
    struct Interface {
        std::string name;
        std::string role; ///< "ethernet", "cellular" or ""
        bool exists = false;
        bool running = false;
        std::vector<std::string> addresses;
        std::uint64_t receivedBytes = 0, sentBytes = 0;
    };
    struct DefaultRoute {
        std::string interface;
        std::string gateway;
        std::uint32_t metric = 0;
        bool isIpv6 = false;
    };
    Known state = Known::UNKNOWN;
    std::string reason;
    std::vector<Interface> interfaces; ///< the two WAN ones
    /// Of the main table: those of the family that tells the path, then the other's.
    std::vector<DefaultRoute> defaults;

    /// "ethernet", "cellular", "other" or "none".
    std::string Path() const;
};

/// What ConnMan told.
struct ConnmanView {
    struct Service {
        std::string interface;
        std::string state;
        std::vector<std::string> nameServers;
    };
    Known state = Known::UNKNOWN;
    std::string reason;
    std::vector<Service> services; ///< in ConnMan's order
};

/// A moment by both clocks; the wall's may jump.
struct Moment {
    std::string utc;
    double monotonic = 0;
};

/// What gateway-app told in its status file.
struct ApplicationView {
    enum class State : int {
        ABSENT,     ///< there is no file
        UNREADABLE, ///< or it is none of a version that is known here
        RUNNING,
        ENDED, ///< it said so
        GONE,  ///< it did not, and its process is not there
        STUCK  ///< its process is there and has not written for long
    };
    struct Counter {
        std::string name;
        double value = 0;
    };
    State state = State::ABSENT;
    std::string file;
    std::string reason;
    std::string text; ///< the file, when it was JSON

    // The file's fields, where the state is neither ABSENT nor UNREADABLE
    std::string name;
    std::string started;
    std::string cloudState, cloudPath, cloudFamily, cloudInterface, cloudReason, cloudFailure;
    Moment cloudSince;
    bool probation = false;
    std::string
        noFailOver; ///< why Cellular does not take over while the cloud is lost on Ethernet; empty: nothing is said
    std::string lastMoveAt, lastMoveFrom, lastMoveTo, lastMoveReason; ///< empty: none
    std::optional<double> longestTickUs;
    std::vector<Counter> counters; ///< those that are known
};

/// What follows for the question whether the cloud is reached, and over which path.
struct Verdict {
    std::string state = "unknown"; ///< "connected", "disconnected", "disabled"
    std::string path = "unknown";  ///< "ethernet", "cellular", "other", "none"
    std::string family;            ///< "IPv4", "IPv6"; empty: unknown, or not connected
    std::string since;             ///< empty: unknown
    std::optional<double> sinceMonotonic;
    std::string reason;
    std::string basis; ///< who says so, or what it was inferred from, or why it is unknown
    int exitStatus = 30;
};

struct Snapshot {
    Moment at;
    BrokerView broker;
    NetworkView network;
    ConnmanView connman;
    ApplicationView application;
    bool hasEndpoint = true; ///< the configuration names what a path is proved with
};

constexpr const char* GREEN = "/orv/led/connected_services_green";
constexpr const char* YELLOW = "/orv/led/connected_services_yellow";
constexpr const char* CLOUD_TOPIC = "/orv/apps_control/features/Ent/status/EntCon";

/// "on", "off", "blink", or "unknown".
const char* LedState(const BrokerView& broker, const char* topic);

/// @return the exit status in it: 0 cloud over Ethernet, 10 over Cellular, 20 no cloud, 30 cannot tell
Verdict Judge(const Snapshot& snapshot);

/// Why Cellular could not take over now, with the remedy; empty when nothing is known to be missing, or when it has.
std::string NoFailOver(const Snapshot& snapshot);

const char* Text(Known state);
const char* Text(ApplicationView::State state);

} // namespace OrvStatus
