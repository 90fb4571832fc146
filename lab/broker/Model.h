// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "broker/ScriptedBroker.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace OrvLab {

/// What one QueueOwner has been asked and what it has said, and so what it still owes. Outlives the object.
///
/// Calls of different threads overlap, and then either may have come first. What cannot be known is not demanded: a
/// connection that was made while another thread called Connect or Disconnect is not `known`.
class Model {
public:
    struct Publication {
        std::string topic;
        std::string payload;
        bool retained;
        bool assured;
        std::uint64_t begun;
        std::uint64_t ended = 0; // 0: under way
        int status = -1;
        int session = 0; // 0: while a connection was being made or given up
        int handed = 0;  // to the library, how many times
        int completed = 0;
    };
    struct Subscription {
        std::string filter;
        int qos;
        std::uint64_t begun;
        std::uint64_t ended = 0;
        bool made = false;
        int session = 0;
    };
    enum class Delivery { ON, OFF, UNCLEAR };

    /// @param most bytes of a publication, and of all that is announced again
    Model(Simulation& simulation, int which, std::size_t most)
        : sim(simulation), number(which), name("c" + std::to_string(which)), limit(most) {}

    /// @name What the calls of the application tell, before and after
    /// @{
    void BeginConnect(const std::string& willTopic);
    void EndConnect(bool connected);
    /// @return to be handed to the end: tells whether a Connect came between
    int BeginDisconnect();
    void EndDisconnect(int connectsBefore);
    std::size_t BeginPublish(const std::string& topic, const std::string& payload, bool retained, bool assured);
    void EndPublish(std::size_t which, int status);
    std::size_t BeginSubscribe(const std::string& filter, int qos);
    void EndSubscribe(std::size_t which, bool made);
    int BeginStop();
    void EndStop(int connectsBefore);
    void Destroyed();
    /// @}

    /// @name What the callbacks tell
    /// @{
    void BeginCallback(const std::string& which);
    void EndCallback();
    void Message(const std::string& payload);
    void Completed(const std::string& topic);
    void Connected();
    /// @}

    /// A publication is handed to the library.
    void Handed(const Packet& publication);

    /// @name What is owed, once the broker is healthy and nobody asks for anything any more
    /// @{
    void CheckSettled(const ScriptedBroker& broker) const;
    /// After a reconnection at which nothing disturbed.
    void CheckRestored(const Connection& connection, const ScriptedBroker& broker) const;
    void CheckReceived(const Connection& connection) const;
    /// @}

    bool IsKnownUp() const { return known && up; }
    int Session() const { return lifecycleUnderWay == 0 && known ? session : 0; }
    bool IsInCallback() const { return callbacks != 0; }
    /// Its thread is not in a callback, and the connection is not being made or given up.
    bool IsAttended() const { return callbacks == 0 && lifecycleUnderWay == 0 && !destroyed; }

    Simulation& sim;
    const int number;
    const std::string name;
    Delivery delivery = Delivery::ON;
    int connects = 0;

private:
    const std::size_t limit;

    [[noreturn]] void Fail(const std::string& what) const { sim.Fail(name + ": " + what); }
    void BeginLifecycle();
    void EndLifecycle(bool isUp);
    bool IsState(const Publication& one) const { return one.retained || willTopics.count(one.topic) != 0; }
    static bool WasRequested(const Publication& one);
    bool IsSuperseded(const Publication& one) const;
    bool IsLatestForSure(const Publication& one) const;
    std::vector<const Publication*> LatestRetained(const std::string& topic) const;
    std::set<std::string> RetainedTopics() const;
    bool MayHaveForgotten() const;
    bool IsReplaced(const Subscription& one) const;
    void CheckSubscribed(const std::set<std::pair<std::string, int>>& subscribed) const;
    void CheckRetained(const ScriptedBroker& broker, const std::string& topic, const std::string& when) const;
    void CheckConnects() const;
    void CheckAnnounced(const std::vector<Packet>& announced) const;

    std::vector<Publication> publications;
    std::vector<Subscription> subscriptions;
    std::set<std::string> willTopics; // of all sessions
    std::string willTopic;

    int lifecycleUnderWay = 0;
    bool disturbed = false; // more than one of them at a time
    bool known = true;
    bool up = false;
    int session = 0;
    std::uint64_t events = 0; // begun and ended calls, to tell which came first
    int connecting = 0;
    int connectsBegun = 0;
    int stopping = 0;
    bool quiet = false; // no callback may begin
    std::uint64_t quietSince = 0;
    bool stoppedInSession = false;
    bool destroyed = false;
    int callbacks = 0;
    std::uint64_t dispatched = 0; // the step at which the latest began
    // OnConnect since the latest Connect, and those that may still have been owed to the Connect before it.
    int connectsHere = 0;
    int connectsUnclear = 0;
    std::uint64_t sessionBegun = 0;
    std::uint64_t sessionMade = 0; // its Connect has returned
    bool formerMayCall = false;
    int lastConnection = 0;
    int lastMessage = 0;
};

} // namespace OrvLab
