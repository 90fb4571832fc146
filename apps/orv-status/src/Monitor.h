// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Application.h"
#include "Broker.h"
#include "Connman.h"
#include "Network.h"
#include "Snapshot.h"

#include <chrono>
#include <functional>
#include <string>

namespace OrvStatus {

struct MonitorSettings {
    BrokerSettings broker;
    std::string busAddress;
    std::string ethernet, cellular;
    std::string statusFile;
    bool hasEndpoint = true;
};

/// Asks all parts, and waits for their news. One thread, but for ConnMan's.
class Monitor {
public:
    using Clock = std::chrono::steady_clock;

    explicit Monitor(const MonitorSettings& settings);

    /// Until every part has answered, or is known to be away; at the latest at `deadline`, and then what has not
    /// answered is unknown.
    void Settle(Clock::time_point deadline);
    /// Until there is news, or `deadline`.
    /// @return false when `wake` became readable, or nobody reads the standard output any more
    bool Wait(Clock::time_point deadline, int wake);

    /// What is known now.
    Snapshot Take();

private:
    bool Poll(Clock::time_point deadline, int wake, int output);

    Broker broker;
    Network network;
    Connman connman;
    ApplicationWatch application;
    const bool hasEndpoint;
    bool news = false; // since the last Take
};

} // namespace OrvStatus
