// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Descriptors.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <dbus/dbus.h>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OrvLab {

struct MessageEnd {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageEnd>;

/// One connection to the bus: the client's socket, and what the bus knows of it.
class BusConnection final : public OpenFile {
public:
    short Ready() const override;
    long Receive(void* buffer, std::size_t size) override;
    bool TakesMore() const { return toBus.size() < window; }

    int number = 0;
    std::size_t window = 1000;
    std::deque<Message> toBus;    // sent, not read by the bus
    std::deque<Message> toClient; // arrived, not read by the client
    struct OnTheWay {
        Time due;
        Message message;
    };
    std::deque<OnTheWay> underWay;
    Time readsAt = NEVER;
    std::set<std::string> rules; // which signals it has asked for
    bool clientGone = false;
    bool closed = false; // by the bus
};

/// A service of the connection manager.
struct LabService {
    std::string interfaceName;
    std::string state;
    std::vector<std::string> written; // the configuration, as it was asked for
    std::string variant{};            // of several services of an interface
    bool immutable = false;           // its name servers cannot be set

    std::string Path() const { return "/net/connman/service/" + interfaceName + variant; }
    bool Connected() const { return state == "ready" || state == "online"; }
};

/// What the bus's one client has asked the connection manager to do, and what became of it.
class BusListener {
public:
    virtual void Moved(const std::string& interfaceName) = 0;
    virtual void Configured(const std::string& interfaceName, const std::vector<std::string>& servers) = 0;

protected:
    ~BusListener() = default;
};

/// A message bus with a connection manager and a hostile user on it, at libdbus' edge: what they do follows from the
/// seed and from what they are told.
class SimulatedBus final : public Surroundings {
public:
    /// REFUSES: one in two; REFUSES_ORDERS: each order, and answers questions.
    enum class Manners { OBEYS, LATE, MUTE, REFUSES, REFUSES_ORDERS };

    SimulatedBus(Simulation& simulation, std::uint64_t seed, BusListener& whoListens);

    Time NextEvent() const override;
    void Advance(Time now) override;

    /// A new connection; null when nobody accepts it.
    std::shared_ptr<BusConnection> Accept();

    /// @name What happens to it
    /// @{
    void SetFrozen(bool isFrozen) { frozen = isFrozen; }
    void Stop();
    void Start() { running = true; }
    void SetManners(Manners manager) { manners = manager; }
    void EndManager();
    /// Another process takes the name: after the end of the one that has it, with its end, or from one that lives on.
    void StartManager();
    /// Something that nobody here has asked for: a service comes, goes, changes its state or its place.
    void ChangeServices();
    /// A user without rights sends what looks like the connection manager's or the bus's word.
    void Forge();
    /// A user without rights answers each call before the connection manager does, or does so no more.
    void SetForestalled(bool isForestalled) {
        forestalled = isForestalled;
        forged = forged || isForestalled;
    }
    /// From now on everything works and obeys.
    void Heal();
    /// @}

    /// @name The same, one by one, for a course that knows what follows
    /// @{
    /// What an earlier process has left: interfaces without name servers.
    void TakeServersAway(const std::string& interfaceName);
    /// The connection manager is there, and the bus has said so to nobody.
    void StartManagerUnnoticed();
    void SetState(const std::string& interfaceName, const char* state);
    void SetImmutable(const std::string& interfaceName, bool immutable);
    void Remove(const std::string& interfaceName);
    void Add(const LabService& service, bool inFront = false);
    /// So many services in all, of which the last is this interface's.
    void PutLastOf(std::size_t count, const std::string& interfaceName);
    /// Those that are nobody's go.
    void RemoveOthers();
    /// The connection manager and the bus send what has not their form, or is about somebody else.
    void SayNonsense();
    /// @}

    bool IsRunning() const { return running && !frozen; }
    /// The connection manager's unique name; empty while there is none.
    const std::string& Owner() const { return owner; }
    bool HasForged() const { return forged; }
    const std::vector<LabService>& Services() const { return services; }
    std::string Top() const { return services.empty() || !services[0].Connected() ? "" : services[0].interfaceName; }
    const LabService* Of(const std::string& interfaceName) const;

    /// @name Whether it has been so at any time since
    /// @{
    bool WasTop(const std::string& interfaceName, Time since) const;
    bool WasWritten(const std::string& interfaceName, const std::vector<std::string>& servers, Time since) const;
    /// @}

    int Calls() const { return calls; }
    /// Of these, what was to change something.
    int Orders() const { return orders; }
    /// Calls to the bus itself.
    int Questions() const { return questions; }
    /// Connections that somebody wanted.
    int Attempts() const { return attempts; }
    /// How long the next connection takes, with nothing to do about it.
    Time ConnectingTakes();

private:
    struct Asked {
        Time due;
        int connection;
        std::string owner;
        Message call;
    };
    struct Fact {
        Time since;
        std::string interfaceName;
        std::vector<std::string> written;
    };

    void Read(BusConnection& connection, DBusMessage& call);
    void HandleBusCall(BusConnection& connection, DBusMessage& call);
    void Answer(const Asked& asked);
    Message HandleManagerCall(DBusMessage& call, std::vector<Message>& news);
    void Send(BusConnection& connection, Message message, const std::string& sender, Time later = 0);
    void SendAll(const char* rule, Message signal, const std::string& sender);
    void OwnerChanged(const std::string& before);
    void LeaveUnanswered();
    bool IsHeldBack(const Asked& one) const;
    Message Reordered(const std::vector<std::string>& fresh, const std::vector<std::string>& removed);
    void TakeName();
    void Forestall(BusConnection& connection, DBusMessage& call);
    Message Forged();
    BusConnection* Find(int number);
    void Note();

    Simulation& sim;
    Random random;
    BusListener& listener;
    bool running = true;
    bool frozen = false;
    bool healed = false;
    bool forged = false;
    bool refused = false;
    Manners manners = Manners::OBEYS;
    std::string owner; // the connection manager's unique name
    int names = 1;
    std::vector<LabService> services;
    std::vector<std::shared_ptr<BusConnection>> connections;
    std::deque<Asked> asked;
    std::vector<Fact> tops;
    std::vector<Fact> writings;
    dbus_uint32_t lastSerial = 0; // of the client's calls
    int calls = 0;                // to the connection manager
    int orders = 0;
    int questions = 0;
    int attempts = 0;
    bool forestalled = false;
    std::set<std::string> owners; // who was the connection manager at any time
};

} // namespace OrvLab
