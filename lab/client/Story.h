// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "client/RouteReference.h"
#include "client/Witness.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OrvLab {

/// What is known of one client, from its creation to its end, and what is demanded of it.
///
/// Calls of several threads overlap. The handling of an event and a tick are each one piece: they take effect in the
/// order in which they are first seen, and nothing of another may be seen in between. So the model follows them in that
/// order, each once its call has returned.
class Story {
public:
    Story(Witness& seenBy, int which);

    /// @name What the witness tells
    /// @{
    void Seen(Call& call, const Effect& effect);
    void Returned(const std::shared_ptr<Call>& call);
    void Delivered(const Effect& effect);
    /// The client library of the broker hands over a message.
    void Handed(const std::string& topic, const std::string& payload);
    /// @}

    /// @name What the application tells
    /// @{
    void HandlerIs(bool there);
    /// Messages may be dropped: the session connects, disconnects or ends.
    void DeliveryIsInterrupted() { ++epoch; }
    /// Of before only the one may come that was under way already.
    void Connects(const std::string& name);
    /// DeInit has returned, and no Init came meanwhile.
    void IsDisconnected();
    unsigned Inits() const { return inits; }
    /// @}

    /// @name At a quiet moment
    /// @{
    void CheckQuiet() const;
    bool IsQuiet() const;
    bool IsDelivering() const { return compared < expected.size(); }
    bool IsCutShort() const;
    /// Whether all messages that were handed over have been seen.
    bool HasSeenAll() const;
    std::string StatusText() const;
    /// What the events have said: of the cloud, of Ethernet's address, of Cellular's.
    bool Flag(int which) const { return which == 0 ? cloud : which == 1 ? ethernetIp : cellularIp; }
    /// What the broker retains of this client when it knows everything.
    /// More than one when the calls overlapped.
    std::map<std::string, std::set<std::string>> Retained() const;
    /// @}

    const std::string session;
    RouteReference route;
    std::string feature;
    bool isCreated = false;
    bool isGone = false; // its destruction was seen
    bool isUp = false;   // Init has connected, and nothing has disconnected
    bool failure = false;
    bool handlerThere = false;
    std::string errorText; // of the error file; empty before a failure

    static const char* const FILTERS[9];

private:
    struct Unit {
        std::shared_ptr<Call> call;
        std::uint64_t first = 0;
        bool isTick = false;
        bool isCompared = false; // of an event: its own part
        std::uint64_t routeFirst = 0;
        Effect order; // of an event
        bool cloud = false;
        bool ethernet = false;
        bool cellular = false;
    };
    struct Message {
        std::string topic;
        std::string payload;
        unsigned epoch;
        std::uint64_t number;
    };
    struct RouteMoment {
        std::uint64_t from;
        std::uint64_t until; // of the piece that made it
        bool maybeSilent;
    };
    struct Destruction {
        std::vector<std::string> expected;
        std::size_t compared = 0;
    };

    void WatchStatus(const Effect& effect, bool& stores);
    void Advance();
    void CompareWaiting();
    void CompareEvent(Unit& unit);
    void CompareRoute(Unit& unit);
    void CompareSilentTick(const Call& call);
    void CompareReconnect(const Call& call);
    void CompareOther(Call& call);
    void CompareCreation(Call& call);
    void CompareInit(Call& call);
    void ApplyEvent(int event);
    void Leds(Replay& replay);
    void Led(Replay& replay, bool yellow, int state, int& sent);
    void Files(Replay& replay, const Call& call);
    void Publish(Replay& replay, bool retained, const std::string& topic, const std::string& payload,
                 const char* warning);
    void AppStatus(Replay& replay, int status);
    void Action(Replay& replay, const std::string& app, int action);
    bool Destroys(const Effect& effect);
    bool WanPath() const;

    void BeginDispatch(const Effect& effect);
    bool TakeMessage(std::deque<Message>& from, bool inOrder, const Effect& effect);
    bool GoesOn(const Effect& effect);
    std::vector<std::string> Dispatch(const Message& message, bool& isReload) const;
    std::vector<std::string> ReadInit(const Message& message, bool& isReload) const;

    [[noreturn]] void Fail(const std::string& what) const;

    Witness& witness;
    const int number;

    // Of the status.
    bool cloud = false;
    bool panel = false;
    bool ethernetLink = false;
    bool ethernetIp = false;
    bool cellularLink = false;
    bool cellularIp = false;
    int yellowSent = 3;
    int greenSent = 3;
    bool anyEvent = false;

    // Calls that are under way or not yet compared.
    std::deque<std::shared_ptr<Unit>> events;
    std::deque<std::shared_ptr<Unit>> routeUnits;
    std::vector<std::shared_ptr<Call>> waiting; // silent ticks and questions
    std::map<const Call*, std::shared_ptr<Unit>> units;
    std::uint64_t lastEventSeen = 0;
    std::uint64_t lastDisconnect = 0;
    std::uint64_t lastRouteSeen = 0;
    std::vector<RouteMoment> moments;
    struct Switch {
        std::uint64_t at;
        std::uint64_t known; // the tick has returned
        bool taken;
    };
    std::vector<Switch> switches;

    // Of the delivery.
    std::deque<Message> messages;
    std::deque<Message> former; // of the sessions before
    unsigned epoch = 0;
    unsigned inits = 0;
    bool isQuiet = false; // no message may begin to be delivered
    std::uint64_t quietSince = 0;
    std::vector<std::string> expected;
    std::size_t compared = 0;
    std::uint64_t dispatchBegan = 0;
    std::uint64_t handlerLost = 0;
    bool handlerThereAtDispatch = false;
    std::vector<std::string> refusal; // in the place of the rest, for a RELOAD
    std::set<int> statuses{0};        // what the application's may be, if calls overlap
    std::set<int> statusesAtDispatch;
    std::set<int> group;
    int statusCalls = 0;
    bool dispatchStoresStatus = false;
    Destruction destruction;
    struct Asked {
        std::string payload;
        std::uint64_t begun;
        std::uint64_t answered;
    };
    std::map<std::string, std::vector<Asked>> asked; // what is to be retained
};

} // namespace OrvLab
