// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "KeepAlive.h"
#include "PathProver.h"
#include "WanInterfaces.h"

#include <OrvStackSdk/Testing.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace GatewayApp {

/// What the application finds around it in virtual time: timers of the test kit, a cloud and a kernel in the test's
/// hands. Surroundings.cpp takes the places of Clock, EventLoop, CloudConnection, NetworkWatcher, PathProver and
/// CsvWatch. One at a time.
struct Surroundings {
    explicit Surroundings(OrvStackSdk::Testing::Gateway& aGateway);
    ~Surroundings();
    Surroundings(const Surroundings&) = delete;
    Surroundings& operator=(const Surroundings&) = delete;

    /// eth0 has this address, wwan0 that one; empty: none. At first both have one.
    void AddressesBecome(const std::string& ethernet, const std::string& cellular);
    /// Ethernet has a link or not, or there is no such interface. At first it has one.
    enum class Link : int { UP, DOWN, GONE };
    void EthernetLinkBecomes(Link state);
    /// Another program writes the library's status file.
    void AnotherProgramWritesTheCsv() const {
        if (repairCsv)
            repairCsv();
    }
    /// The kernel's default route moves.
    void DefaultRouteBecomes(const std::string& interface);

    /// Set by the application's parts while they live.
    /// @{
    std::function<void(const std::string& source)> cloudAnswers;
    std::function<void(const std::string& reason)> cloudBreaks;
    std::function<KeepAlive()> keepAlive;
    std::function<void()> addressesChange;
    std::function<void(const std::string& interface)> defaultRouteChanges;
    std::function<void()> repairCsv;
    /// @}

    /// What the application's own try over an interface comes to; at first no try ever ends.
    std::optional<PathProver::Result> proof;

    /// Why each attempt to connect to the cloud fails after 5 s; empty: it lasts until the cloud answers.
    std::string attemptsFail;

    OrvStackSdk::Testing::Gateway& gateway;
    std::vector<OrvNetlink::Link> links;
    std::vector<OrvNetlink::Address> addresses;
    std::string defaultRoute = "eth0";

    static Surroundings& Present();
};

} // namespace GatewayApp
