// SPDX-License-Identifier: Apache-2.0
#include "client/RouteReference.h"

#include "client/Edge.h"

namespace OrvLab {

bool RouteReference::reported = false;
bool RouteReference::isShared = false;
std::string RouteReference::path;
std::string RouteReference::ethernetName;
std::string RouteReference::cellularName;
const char* const RouteReference::TOPIC = "/orv/network/wan/inhibit_dns";

void RouteReference::Note(Replay& replay, const std::string& text) {
    replay.ExpectRecord("debug", "OrvRoute", "Tick", text);
}

void RouteReference::Order(Replay& replay, const std::string& interface) {
    replay.Expect("put on top " + interface);
}

void RouteReference::NameServers(Replay& replay, const char* first) {
    replay.Expect(std::string("name servers of ") + cellularName + ": '" + first + "' ''");
}

void RouteReference::Publish(Replay& replay, const char* word) {
    replay.Expect(Edge::Publication(owner, true, true, TOPIC, word));
    inhibited = word;
}

void RouteReference::Report(Replay& replay, const char* where) {
    const std::string text = std::string(" Cloud connected with ") + where + " interface";
    if (isShared) {
        replay.Take(Edge::Record("debug", "OrvRoute", "Tick", text));
        return;
    }
    if (reported)
        return;
    path = where;
    Note(replay, text);
    reported = true;
}

void RouteReference::Update(Replay& replay, bool cloud, bool ethernet, bool cellular) {
    cloudUp = cloud;
    ethernetUp = ethernet;
    cellularUp = cellular;
    if (!cloud)
        lostSinceSwitch = true;
    Order(replay, state == TO_CELLULAR || state == CELLULAR ? cellularName : ethernetName);
}

bool RouteReference::MayBeSilent() const {
    return (state == ETHERNET && cloudUp && (reported || isShared)) || (state == CELLULAR && !drives && !ethernetUp);
}

bool RouteReference::Release(Replay& replay) {
    if (hasPoke)
        replay.Expect("the poke is released");
    hasPoke = false;
    return false;
}

bool RouteReference::Poke(Replay& replay) {
    if (!hasPoke) {
        if (replay.Take("a poke cannot begin")) {
            replay.ExpectRecord("error", "OrvRoute", "", "ERROR Setup Poke");
            return false;
        }
        replay.Expect("a poke begins over " + pokeOver);
        hasPoke = true;
    }
    const std::int64_t running = replay.Expect("the poke is driven");
    if (running < 0) {
        replay.ExpectRecord("error", "OrvRoute", "", "curl multi perform error");
        return Release(replay);
    }
    if (running != 0)
        return false;
    std::int64_t left = 1;
    bool success = false;
    while (left != 0) {
        std::int64_t result = 0;
        if (replay.Take("the poke says nothing"))
            left = 0;
        else if (!replay.Take("the poke says something", &left)) {
            result = replay.Expect("the poke has ended");
            left = 0;
            success = result == 0;
            if (!success)
                replay.ExpectRecord("error", "OrvRoute", "", "poke error " + std::to_string(result));
            Release(replay);
        }
    }
    return success;
}

void RouteReference::Tick(Replay& replay) {
    const bool reached = drives && Poke(replay);
    switch (state) {
    case ETHERNET:
        Active(replay);
        break;
    case LOST:
        Lost(replay);
        break;
    case POKING:
        Poking(replay, reached);
        break;
    case TO_CELLULAR:
        ToCellular(replay);
        break;
    case CELLULAR:
        OnCellular(replay, reached);
        break;
    case TO_ETHERNET:
        ToEthernet(replay);
        break;
    case SETTLING:
        Settling(replay);
        break;
    }
}

void RouteReference::Active(Replay& replay) {
    if (cloudUp) {
        Report(replay, "Ethernet");
        return;
    }
    since = replay.Clock();
    Note(replay, "eth cloud lost, start delay to cell");
    reported = false;
    state = LOST;
}

void RouteReference::Lost(Replay& replay) {
    if (cloudUp && !ethernetUp && cellularUp) {
        Publish(replay, "inhibit");
        Note(replay, "cell cloud reconnected by itself");
        state = CELLULAR;
    } else if (cloudUp) {
        Note(replay, "eth cloud reconnected by itself");
        state = ETHERNET;
    } else if (replay.Clock() - since >= 10 * SECOND && cellularUp && !drives) {
        drives = true;
        pokeOver = cellularName;
        since = replay.Clock();
        Publish(replay, "inhibit");
        Note(replay, std::string("Started Poke to cell if ") + cellularName);
        state = POKING;
    }
}

void RouteReference::Poking(Replay& replay, bool reached) {
    if (drives && reached) {
        Order(replay, cellularName);
        drives = false;
        since = replay.Clock();
        Note(replay, "poke success, route to Cell");
        state = TO_CELLULAR;
        return;
    }
    if (!cloudUp && cellularUp && replay.Clock() - since < 20 * SECOND)
        return;
    if (drives) {
        drives = false;
        Release(replay);
        Publish(replay, "permit");
    }
    Note(replay, "poke cell aborted");
    state = ETHERNET;
}

void RouteReference::ToCellular(Replay& replay) {
    if (!replay.TakeBeginningWith(std::string("which is on top: ") + cellularName).empty()) {
        reconnect = true;
        Note(replay, "route is Cell, reconnecting");
        Report(replay, "Cellular");
        state = CELLULAR;
        return;
    }
    if (replay.TakeBeginningWith("which is on top: ").empty())
        replay.Fail("ask which is on top");
    if (replay.Clock() - since < 3 * SECOND)
        return;
    Publish(replay, "permit");
    Order(replay, ethernetName);
    replay.ExpectRecord("error", "OrvRoute", "",
                        std::string("Failed to set ") + cellularName + " as top interface, restarting SM");
    state = ETHERNET;
}

void RouteReference::OnCellular(Replay& replay, bool reached) {
    if (ethernetUp && !drives) {
        drives = true;
        pokeOver = ethernetName;
        believesInhibited = true;
        since = replay.Clock();
        Note(replay, std::string("Started Poke eth if ") + ethernetName);
    }
    if (!drives)
        return;
    if (!ethernetUp && replay.Clock() - since >= 2 * SECOND)
        drives = false;
    if (cellularUp != believesInhibited) {
        Publish(replay, cellularUp ? "inhibit" : "permit");
        believesInhibited = cellularUp;
    }
    if (!drives || !reached)
        return;
    NameServers(replay, "0.0.0.0");
    Publish(replay, "permit");
    drives = false;
    Order(replay, ethernetName);
    since = replay.Clock();
    Note(replay, "poke success, route to ETH");
    reported = false;
    state = TO_ETHERNET;
}

void RouteReference::ToEthernet(Replay& replay) {
    if (!replay.TakeBeginningWith(std::string("which is on top: ") + ethernetName).empty()) {
        reconnect = true;
        lostSinceSwitch = false;
        since = replay.Clock();
        Note(replay, "route is eth, reconnecting");
        state = SETTLING;
        return;
    }
    if (replay.TakeBeginningWith("which is on top: ").empty())
        replay.Fail("ask which is on top");
    if (replay.Clock() - since < 3 * SECOND)
        return;
    Order(replay, ethernetName);
    NameServers(replay, "");
    replay.ExpectRecord("error", "OrvRoute", "",
                        std::string("Failed to set ") + ethernetName + " as top interface, restarting SM");
    state = ETHERNET;
}

void RouteReference::Settling(Replay& replay) {
    if (!lostSinceSwitch && replay.Clock() - since < 5 * SECOND)
        return;
    NameServers(replay, "");
    Note(replay, "cell to eth delay done");
    state = ETHERNET;
}

} // namespace OrvLab
