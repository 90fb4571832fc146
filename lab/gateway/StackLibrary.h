// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/ConnectionManager.h"
#include "gateway/FakeFiles.h"
#include "gateway/World.h"
#include "sim/Random.h"

#include <OrvStackSdk/OrvStackSdk.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace OrvLab {

/// Told of what an application does with the client library; each at the beginning of the call, but for what it gives.
class StackListener {
public:
    virtual void Created(bool made) = 0;
    virtual void HandlerSet() = 0;
    virtual void Inits(const std::string& name) = 0;
    virtual void Confirmed(bool accepted) = 0;
    virtual void Starts() = 0;
    virtual void Ticks() = 0;
    virtual void Reports(OrvStackSdk::OrvEvent event) = 0;
    virtual void Says(OrvStackSdk::AppStatus status) = 0;
    virtual void AsksWhetherMoved(bool moved, bool toCellular) = 0;
    virtual void Stops() = 0;
    virtual void DeInits() = 0;
    virtual void Released() = 0;

protected:
    ~StackListener() = default;
};

/// The client library as its headers and docs/route.md show it to an application, with the gateway's broker: it waits
/// as long as it may, calls back from its own thread, and moves the route when a poke has succeeded.
class StackLibrary {
public:
    enum class State { ETHERNET, DELAY, POKING_CELLULAR, TO_CELLULAR, CELLULAR, TO_ETHERNET, SETTLE };
    enum class Broker { THERE, REFUSING, MUTE };

    StackLibrary(World& its, ConnectionManager& itsManager, FakeFiles& itsFiles, StackListener& itsListener,
                 std::uint64_t seed);
    ~StackLibrary();
    StackLibrary(const StackLibrary&) = delete;
    StackLibrary& operator=(const StackLibrary&) = delete;

    /// As the library's function of that name, with the one that is present.
    static std::shared_ptr<OrvStackSdk::IOrvStackClient> Create();

    Broker broker = Broker::THERE;
    /// What an event may wait for the disk, at most.
    Time disk = 0;
    /// From now on a poke succeeds as soon as its interface reaches the cloud.
    bool pokesAreQuick = false;
    /// Another message arrives for the application.
    void Deliver(std::function<void(OrvStackSdk::IOrvStackClientHandler& handler)> message);
    /// Whether a poke over the interface that ends now succeeds.
    std::function<bool(const std::string& interface)> reaches;

    State Where() const { return state; }
    /// A RELOAD is not passed on then.
    bool IsBooting() const { return booting; }
    /// What the status file has to hold, by the events.
    std::string Csv() const;

private:
    class Client;
    void Wait(const char* what, Time duration);
    void WriteCsv();
    void Move();
    void MoveOnEthernet();
    void MoveOnCellular();
    void BeginPoke();
    /// @return 1: it has succeeded, -1: it has failed and is begun anew, 0: it goes on
    int DrivePoke(const std::string& interface);
    void Enter(State next);
    void Order() const;
    void Report(OrvStackSdk::OrvEvent event);
    void DeliveryThread();

    Simulation& sim;
    ConnectionManager& manager;
    FakeFiles& files;
    StackListener& listener;
    Random random;

    // The supervision
    State state = State::ETHERNET;
    Time stamp = 0;
    bool moved = false;
    bool poking = false;
    Time pokeEnds = 0;
    int pokeSteps = 0;
    bool enabled = false;
    bool cloud = false;
    bool cloudLostSinceSwitch = false;
    bool ethernetLink = false;
    bool cellularLink = false;
    bool ethernet = false; // has an address
    bool cellular = false;
    bool told = false; // the cloud, on ConnInterfaceString

    // The session
    std::weak_ptr<OrvStackSdk::IOrvStackClientHandler> handler;
    std::deque<std::function<void(OrvStackSdk::IOrvStackClientHandler&)>> messages;
    Simulation::Thread* delivery = nullptr;
    bool connected = false;
    bool booting = false;
    bool inCallback = false; // in a callback of Init
};

} // namespace OrvLab
