// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "client/Replay.h"

#include <string>

namespace OrvLab {

/// What the route supervision has to do, written down a second time, from its description.
class RouteReference {
public:
    enum State { ETHERNET, LOST, POKING, TO_CELLULAR, CELLULAR, TO_ETHERNET, SETTLING };

    /// @param name the broker's name for the route
    explicit RouteReference(std::string name) : owner(std::move(name)) {}

    void Update(Replay& replay, bool cloud, bool ethernet, bool cellular);
    void Tick(Replay& replay);
    /// Whether a tick may do nothing at all that is seen.
    bool MayBeSilent() const;

    State state = ETHERNET;
    bool reconnect = false;
    bool hasPoke = false;  // a transfer
    std::string inhibited; // the last word on the topic; empty for none
    /// Of the process.
    static bool reported;
    /// Another route reports, too: what has been reported is not known.
    static bool isShared;
    static std::string path;

    static std::string ethernetName;
    static std::string cellularName;
    static const char* const TOPIC;

private:
    bool Poke(Replay& replay);
    bool Release(Replay& replay);
    void Active(Replay& replay);
    void Lost(Replay& replay);
    void Poking(Replay& replay, bool reached);
    void ToCellular(Replay& replay);
    void OnCellular(Replay& replay, bool reached);
    void ToEthernet(Replay& replay);
    void Settling(Replay& replay);
    void Publish(Replay& replay, const char* word);
    static void Note(Replay& replay, const std::string& text);
    static void Order(Replay& replay, const std::string& interface);
    static void NameServers(Replay& replay, const char* first);
    static void Report(Replay& replay, const char* where);

    const std::string owner;
    bool cloudUp = false;
    bool ethernetUp = false;
    bool cellularUp = false;
    bool drives = false;
    bool lostSinceSwitch = true;
    bool believesInhibited = true;
    std::string pokeOver;
    Time since = 0;
};

} // namespace OrvLab
