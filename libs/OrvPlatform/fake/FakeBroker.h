// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

namespace OrvPlatformFake {

/// The broker behind the fake QueueOwner: subscriptions with wildcards, retained messages, wills. Messages wait until
/// Deliver hands them out on the calling thread, which thus plays the delivery thread. Callable from any thread.
class FakeBroker {
public:
    static FakeBroker& Get();

    /// A fresh broker: reachable, nothing retained, nothing waiting. Objects that are connected stay so.
    void Reset();

    /// Whether connections are accepted from now on.
    void SetReachable(bool reachable);

    /// What every publication returns from now on; 0 lets them through, and with them the state that was refused while
    /// the client was connected.
    void SetPublishStatus(int status);

    /// Called at the start of every publication, on the publishing thread; empty for none.
    void SetPublishHook(std::function<void(const std::string& topic)> hook);

    /// A client of somebody else publishes.
    void Inject(const std::string& topic, const std::string& payload, bool retained = false);

    /// Hands out all waiting messages, those that arise meanwhile included.
    void Deliver();

    /// The connection of that client ends without a good-bye: its last will is published.
    void DropConnection(const std::string& clientId);

    /// A connection that has ended so is made again by itself: first the subscriptions, then what was last asked for on
    /// each retained topic and on the will's topic, taken or refused; then OnConnect, on the calling thread.
    void RestoreConnection(const std::string& clientId);

    bool HasRetained(const std::string& topic);
    std::string Retained(const std::string& topic);
    bool IsConnected(const std::string& clientId);

    /// True when `filter` matches `topic` by MQTT's rules for "+" and "#".
    static bool Matches(const std::string& filter, const std::string& topic);

private:
    FakeBroker() = default;
};

} // namespace OrvPlatformFake
