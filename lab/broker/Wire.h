// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "broker/ScriptedBroker.h"

#include <memory>
#include <string>

namespace OrvLab {

/// Where the simulated client library finds its broker. One at a time.
class Wire {
public:
    static ScriptedBroker* broker;
    /// Clients of the library that were made and not destroyed, all and those with that id.
    static int Clients();
    static int ClientsOf(const std::string& id);
    /// Called when a publication is handed to the library.
    static void (*onPublish)(const std::string& client, const Packet& publication);
    /// Message ids begin after this one.
    static int lastId;
    /// No client is left from a course that ended before its time.
    static void Reset();
};

} // namespace OrvLab
