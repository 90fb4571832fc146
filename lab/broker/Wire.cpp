// SPDX-License-Identifier: Apache-2.0
#include "broker/Wire.h"

#include "broker/FakeMosquitto.h"

#include <algorithm>

namespace OrvLab {

ScriptedBroker* Wire::broker = nullptr;
void (*Wire::onPublish)(const std::string&, const Packet&) = nullptr;
void (*Wire::onMessage)(const std::string&, const Packet&) = nullptr;
bool (*Wire::isAttended)(const std::string&) = nullptr;
int Wire::lastId = 0;

namespace {

/// Packets lie about that could be sent, or that could be read.
const char* LiesAbout(const mosquitto& client) {
    if (!client.out.empty() && !client.connection->closed && client.connection->TakesMore())
        return "a packet waits though the socket takes it";
    return client.connection->Waiting() != 0 ? "a packet has arrived and is not read" : nullptr;
}

} // namespace

std::set<mosquitto*>& Wire::Living() {
    static std::set<mosquitto*> living;
    return living;
}

int Wire::Clients() {
    return static_cast<int>(Living().size());
}

int Wire::ClientsOf(const std::string& id) {
    return static_cast<int>(
        std::count_if(Living().begin(), Living().end(), [&](const mosquitto* one) { return one->id == id; }));
}

Wire::Connections Wire::ConnectionsOf(const std::string& id) {
    const auto found =
        std::find_if(Living().begin(), Living().end(), [&](const mosquitto* one) { return one->id == id; });
    return found == Living().end() ? Connections{} : Connections{(*found)->accepted, (*found)->stood};
}

void Wire::Jumped(Time by) {
    Simulation& sim = *Simulation::Current();
    const bool everybodyWaits = sim.StallTime() == sim.StallTimeSoFar();
    for (mosquitto* client : Living()) {
        if (client->isActive && !client->stands && everybodyWaits) {
            client->stands = true;
            ++client->stood;
        }
        const char* what = client->isActive && isAttended(client->id) ? LiesAbout(*client) : nullptr;
        if (what == nullptr) {
            client->late = 0;
            client->stallTimeBefore = sim.StallTimeSoFar();
            continue;
        }
        client->late += by;
        if (client->late > sim.StallTime() - client->stallTimeBefore)
            sim.Fail(client->id + ": " + what + ", for " + std::to_string(static_cast<double>(client->late) / SECOND) +
                     " s");
    }
}

void Wire::Reset() {
    Living().clear();
}

} // namespace OrvLab
