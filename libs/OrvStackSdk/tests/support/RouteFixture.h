// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "FakeBroker.h"
#include "FakeConnman.h"
#include "FakeCurl.h"
#include "FakeGateway.h"
#include "Journal.h"
#include "OrvRoute.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace OrvStackSdk::Testing {

/// The route's own lines of the journal.
inline std::string RouteDebug(const std::string& text) {
    return OrvPlatformFake::Entry::Debug("OrvRoute", "Tick", text);
}
inline std::string RouteError(const std::string& text) {
    return OrvPlatformFake::Entry::Error("OrvRoute", text);
}
inline std::string DnsTopic(const std::string& payload) {
    return OrvPlatformFake::Entry::PublishRetained("OrvRoute", "/orv/network/wan/inhibit_dns", payload, true);
}

inline const std::string TOP_ETHERNET = "connman top eth0";
inline const std::string TOP_CELLULAR = "connman top wwan0";
inline const std::string CLEAR_CELLULAR_DNS = R"(connman dns wwan0 "" "")";

/// The connection manager has this order, and keeps it whatever it is asked for.
inline void ConnmanShows(const std::vector<std::string>& order) {
    OrvPlatformFake::FakeConnman::Get().SetOrder(order);
    OrvPlatformFake::FakeConnman::Get().SetObedient(false);
}

/// Lists of journal lines written one after the other.
inline OrvPlatformFake::Entries operator+(OrvPlatformFake::Entries first, const OrvPlatformFake::Entries& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// A fresh route supervisor on a virtual clock and a scripted libcurl, with the cloud not reported on any path yet.
class RouteFixture : public ::testing::Test {
protected:
    using seconds = std::chrono::seconds;
    using Entries = OrvPlatformFake::Entries;

    RouteFixture() {
        OrvPlatformFake::FakeGateway::Reset();
        FakeCurl::Reset();
        time.Set(OrvRoute::Clock::time_point(std::chrono::hours(1)));
        ForgetReportedCloud();
        route = std::make_unique<OrvRoute>(time.Now());
        OrvPlatformFake::Journal::Clear();
    }

    /// The process-wide memory of the reported cloud is cleared by any route that sees the cloud lost.
    void ForgetReportedCloud() { OrvRoute(time.Now()).Tick(); }

    Entries AfterTick() {
        OrvPlatformFake::Journal::Clear();
        route->Tick();
        return OrvPlatformFake::Journal::Take();
    }

    /// What a tick does apart from driving the poke.
    Entries EffectsOfTick() { return OrvPlatformFake::Only(AfterTick(), {"log", "publish", "connman", "curl MISUSE"}); }

    void Update(bool cloud, bool ethernet, bool cellular) { route->UpdateRoute(cloud, ethernet, cellular); }

    /// @name Ways into the states, all with Cellular up and the cloud lost unless the test says otherwise. Time passes
    /// in each state, so that a delay counted from the wrong moment is seen.
    /// @{
    void LoseCloudOnEthernet() {
        Update(false, false, true);
        route->Tick();
    }
    void StartCellularPoke() {
        LoseCloudOnEthernet();
        time.Advance(seconds(10));
        route->Tick();
    }
    void SwitchToCellular() {
        StartCellularPoke();
        time.Advance(seconds(4));
        FakeCurl::Succeed();
        route->Tick();
        FakeCurl::KeepRunning();
    }
    void BeOnCellular() {
        SwitchToCellular();
        time.Advance(seconds(2));
        route->Tick();
        route->CloudReconnectNeeded();
    }
    void StartEthernetPoke() {
        BeOnCellular();
        Update(true, true, true);
        route->Tick();
    }
    void SwitchToEthernet() {
        StartEthernetPoke();
        time.Advance(seconds(4));
        FakeCurl::Succeed();
        route->Tick();
        FakeCurl::KeepRunning();
    }
    void SettleOnEthernet() {
        SwitchToEthernet();
        time.Advance(seconds(2));
        route->Tick();
        route->CloudReconnectNeeded();
    }
    /// @}

    OrvPlatformFake::VirtualClock<OrvRoute::Clock> time;
    std::unique_ptr<OrvRoute> route;
};

} // namespace OrvStackSdk::Testing
