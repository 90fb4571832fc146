// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvRoutePoke.h"
#include "Platform.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace OrvStackSdk {

/// Decides which WAN interface carries the default route. Ethernet is preferred. Cellular takes over when the cloud is
/// lost on Ethernet and a TLS connection over Cellular has proved that the cloud is reachable there. Ethernet gets the
/// route back in the same way. docs/route.md has the diagram.
///
/// Threads: every public operation may be called on any thread and holds one mutex for its whole duration. A caller may
/// hold a lock of its own, because the route never calls back.
/// Blocking: construction waits for the broker at most 3 s, destruction at most 1 s. Nothing else waits for anything.
class OrvRoute : public QUILMQTT::QueueOwner {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;
    /// The default clock. &Clock::now itself would put a long symbol into the library. It is defined in RealTime.cpp,
    /// so that the test kit can replace it.
    struct RealTime {
        Clock::time_point operator()() const;
    };

    /// Makes Ethernet the top-priority interface and connects to the broker.
    /// @param now the monotonic clock that all delays are measured with
    /// @throws std::runtime_error when the broker cannot be reached
    explicit OrvRoute(Now now = RealTime());
    ~OrvRoute() override;

    /// Stores the connectivity and orders the interface of the current state from the connection manager again.
    void UpdateRoute(bool cloudIsConnected, bool ethernetHasIp, bool cellularHasIp);

    /// Moves the state machine one step. The state changes only here.
    void Tick();

    /// True once after each completed switch.
    bool CloudReconnectNeeded();

private:
    enum class RouteState : std::uint32_t {
        ETHERNET_ACTIVE = 0,
        ETHERNET_LOST_DELAY = 1,
        POKING_CELLULAR = 2,
        SWITCHING_TO_CELLULAR = 3,
        CELLULAR_ACTIVE = 4,
        SWITCHING_TO_ETHERNET = 5,
        ETHERNET_SETTLE_DELAY = 6
    };

    // One step of each state. They run with the mutex held and return the next state.
    RouteState EthernetActive();
    RouteState EthernetLostDelay();
    RouteState PokingCellular(bool pokeSucceeded);
    RouteState SwitchingToCellular();
    RouteState CellularActive(bool pokeSucceeded);
    RouteState SwitchingToEthernet();
    RouteState EthernetSettleDelay();
    RouteState Step(bool pokeSucceeded);

    void StartPoke(const std::string& interfaceName);
    void SetCellularNameServer(const char* address);
    void MirrorCellularOnDnsTopic();
    void Note(const char* text);
    void ReportCloudConnectedWith(const char* path);
    void PublishDns(const char* word);
    void Stamp();
    bool ElapsedAtLeast(Clock::duration delay) const;

    RouteState state = RouteState::ETHERNET_ACTIVE;
    Clock::time_point stateSince;
    bool cloudConnected = false;
    bool ethernetIpUp = false;
    bool cellularIpUp = false;
    bool pokeRunning = false; // a poke is to be driven with each tick
    bool reconnectNeeded = false;
    bool cloudLostSinceSwitch = true;
    bool dnsInhibited = true;
    std::mutex routeMutex; // guards everything that changes
    const std::string ethernetInterface;
    const std::string cellularInterface;
    CommonUtils::Logger logger;
    OrvRoutePoke poke;
    const Now now;
};

} // namespace OrvStackSdk
