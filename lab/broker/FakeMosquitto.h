// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "broker/ScriptedBroker.h"
#include "sim/Simulation.h"

#include <mosquitto.h>

#include <deque>
#include <list>
#include <memory>
#include <string>

/// A client of the simulated library.
struct mosquitto {
    std::string id;
    void* user = nullptr;
    void (*onConnect)(mosquitto*, void*, int) = nullptr;
    void (*onDisconnect)(mosquitto*, void*, int) = nullptr;
    void (*onMessage)(mosquitto*, void*, const mosquitto_message*) = nullptr;
    void (*onPublish)(mosquitto*, void*, int) = nullptr;
    void (*onSubscribe)(mosquitto*, void*, int, int, const int*) = nullptr;

    OrvLab::Will will;
    OrvLab::Time keepAlive = 0;
    int socket = -1;
    std::shared_ptr<OrvLab::Connection> connection;
    std::deque<OrvLab::Packet> out;
    std::list<OrvLab::Packet> unacknowledged;
    bool isActive = false;
    bool isDisconnecting = false;
    OrvLab::Time lastIn = 0;
    OrvLab::Time lastOut = 0;
    OrvLab::Time pinged = 0;
    int lastId = 0;
    const OrvLab::Simulation::Thread* user_thread = nullptr;

    // What is watched.
    int accepted = 0;    // connections
    int stood = 0;       // of them, those that lasted until everybody waited
    bool stands = false; // this connection is one of those
    OrvLab::Time late = 0;
    OrvLab::Time stallTimeBefore = 0;
};
