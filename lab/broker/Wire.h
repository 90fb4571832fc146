// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "broker/ScriptedBroker.h"

#include <set>
#include <string>

struct mosquitto;

namespace OrvLab {

/// Where the simulated client library finds its broker. One at a time.
class Wire {
public:
    static ScriptedBroker* broker;
    /// Clients of the library that were made and not destroyed, all and those with that id.
    static int Clients();
    static int ClientsOf(const std::string& id);
    static std::set<mosquitto*>& Living();
    /// What the latest client of the library with that id has had.
    struct Connections {
        int accepted = 0;
        int stood = 0; ///< of them, those that lasted until everybody waited for something
    };
    static Connections ConnectionsOf(const std::string& id);
    /// Called when the clock is about to jump: nothing may lie about that could be sent or read at once, unless a
    /// thread is held up.
    static void Jumped(Time by);
    /// Whether a client's own thread has nothing else to do than to send and to read.
    static bool (*isAttended)(const std::string& client);
    /// Called when a publication is handed to the library.
    static void (*onPublish)(const std::string& client, const Packet& publication);
    /// Called when the library hands a message over.
    static void (*onMessage)(const std::string& client, const Packet& message);
    /// Message ids begin after this one.
    static int lastId;
    /// No client is left from a course that ended before its time.
    static void Reset();
};

} // namespace OrvLab
