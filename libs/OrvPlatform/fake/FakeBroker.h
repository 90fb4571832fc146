// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <optional>
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

    /// Refuses this client's connections alone from now on; empty: nobody's.
    void SetRefused(const std::string& clientId);

    /// What every publication returns from now on; 0 lets them through, and with them the state that was refused while
    /// the client was connected.
    void SetPublishStatus(int status);

    /// Called at the start of every publication, on the publishing thread; empty for none.
    void SetPublishHook(std::function<void(const std::string& topic)> hook);

    /// A client of somebody else publishes.
    void Inject(const std::string& topic, const std::string& payload, bool retained = false);

    /// A message that the broker has taken.
    struct Taken {
        std::string client; // who published it; empty: a client of somebody else
        std::string topic;
        std::string payload;
        bool retained;
    };

    /// Called with every message that is taken, on the publishing thread and with the broker locked; empty for none.
    void SetTakenHook(std::function<void(const Taken&)> hook);

    /// Called whenever a message begins to wait, likewise.
    void SetWaitingHook(std::function<void()> hook);

    /// Messages are handed out only when `latency` has passed since they came, by `clock`; their order stays. Without a
    /// clock they are handed out at once. The clock is asked with the broker locked.
    void SetLatency(std::chrono::milliseconds latency, std::function<std::chrono::milliseconds()> clock);

    /// When the next waiting message is to be handed out; nothing when none waits.
    std::optional<std::chrono::milliseconds> NextDue();

    /// Hands out all waiting messages that are due, those that arise meanwhile included. One thread at a time delivers.
    void Deliver();

    /// Hands out one. @return false when none is due
    bool DeliverOne();

    /// The connection of that client ends without a good-bye: its last will is published.
    void DropConnection(const std::string& clientId);

    /// A connection that has ended so is made again by itself, if connections are accepted: first the subscriptions,
    /// then what was last asked for on each retained topic and on the will's topic, taken or refused; then OnConnect,
    /// on the calling thread.
    void RestoreConnection(const std::string& clientId);

    /// The broker ends: no connection is accepted, those that there are break without a last will, and what waits or
    /// was retained is gone.
    void Stop();

    /// It is there again. Connections that have broken stay so until they are restored.
    void Start();

    /// Every connection ends without a good-bye.
    void DropConnections();

    /// Restores every connection that has broken. @return whether any was
    bool RestoreConnections();

    bool HasRetained(const std::string& topic);
    std::string Retained(const std::string& topic);
    bool IsConnected(const std::string& clientId);

    /// True when `filter` matches `topic` by MQTT's rules for "+" and "#".
    static bool Matches(const std::string& filter, const std::string& topic);

private:
    FakeBroker() = default;
};

} // namespace OrvPlatformFake
