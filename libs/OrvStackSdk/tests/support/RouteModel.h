// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Journal.h"

#include <chrono>
#include <cstdint>
#include <set>
#include <string>

namespace OrvStackSdk::Testing {

/// What the poke of a tick comes to, if one is driven in it.
enum class PokeOutcome {
    RUNNING,
    SUCCEEDED,
    FAILED,
    ENDED_SILENTLY,
    CANNOT_BE_DRIVEN,
    NO_MULTI_HANDLE,
    NO_EASY_HANDLE,
    NOT_ADDED
};

/// A second opinion on the route supervisor: its table of transitions written down as data, with the whole journal that
/// each step must leave. It shares no code with the supervisor. A value: copy it to look ahead.
struct RouteModel {
    using nanoseconds = std::chrono::nanoseconds;
    using Entries = OrvPlatformFake::Entries;

    /// What all routes of a process have in common.
    struct Process {
        bool reported = false;
        std::string path; // ConnInterfaceString

        /// Another route takes a step on Ethernet.
        void SeeFromAnotherRoute(bool cloud) {
            if (cloud && !reported)
                path = "Ethernet";
            reported = cloud;
        }
    };

    /// What a tick meets.
    struct Surroundings {
        nanoseconds now;
        std::string top; // the connection manager's first interface
        PokeOutcome poke = PokeOutcome::RUNNING;
    };

    Entries Update(bool cloud, bool ethernet, bool cellular);
    Entries Tick(Process& process, const Surroundings& surroundings);
    bool TakeReconnect();

    /// All that decides on future steps except the time, in a number.
    std::uint32_t Key(const Process& process) const;

    /// Names of the table's rows that were used so far, by all models, and of all that there are.
    static const std::set<std::string>& UsedRows();
    static std::set<std::string> AllRows();

    /// @name What a route remembers
    /// @{
    int state = 0;
    nanoseconds stateSince{0};
    bool cloudConnected = false;
    bool ethernetIpUp = false;
    bool cellularIpUp = false;
    bool pokeRunning = false;
    bool reconnectNeeded = false;
    bool cloudLostSinceSwitch = true;
    bool dnsInhibited = true;
    bool pokeSetUp = false;
    std::string pokeInterface;
    /// @}
};

} // namespace OrvStackSdk::Testing
