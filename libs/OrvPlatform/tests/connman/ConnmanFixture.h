// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "LogWatch.h"
#include "PrivateBus.h"
#include "connman/ConnmanClient.h"

#include <gtest/gtest.h>
#include <optional>

namespace OrvTest {

inline const OrvPlatform::ConnmanLimits FAST{std::chrono::milliseconds(300), std::chrono::milliseconds(300),
                                             std::chrono::milliseconds(20), std::chrono::milliseconds(200),
                                             std::chrono::milliseconds(2000)};

/// A message bus without a connection manager.
class AGateway : public testing::Test, protected LogWatch {
protected:
    bool BecomesTop(const std::string& interfaceName) {
        return WaitUntil([&] { return link.TopPriorityInterface() == interfaceName; });
    }

    PrivateBus bus;
    OrvPlatform::ConnmanClient link{bus.Address(), FAST};
};

/// With a connection manager: eth0 is on top, wwan0 is ready.
class AConnectedGateway : public AGateway {
protected:
    AConnectedGateway() {
        connman.emplace(bus, "eth0:online wwan0:ready");
        EXPECT_TRUE(BecomesTop("eth0"));
    }

    /// Everything that was asked for has been carried out: an order for the other interface's servers is the fence.
    std::string CallsUntilNow() {
        link.SetDnsConfiguration("eth0", {"203.0.113." + std::to_string(++fence)});
        EXPECT_TRUE(IsLogged("name servers of eth0: 203.0.113." + std::to_string(fence)));
        std::string calls = connman->Calls();
        return calls.substr(0, calls.find(";SetProperty eth0") == std::string::npos ? calls.find("SetProperty eth0")
                                                                                    : calls.find(";SetProperty eth0"));
    }

    std::optional<FakeConnmanProcess> connman;
    int fence = 0;
};

} // namespace OrvTest
