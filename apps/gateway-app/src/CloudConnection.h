// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "BackOff.h"
#include "CloudDialer.h"
#include "EventLoop.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace GatewayApp {

/// Keeps a connection to the cloud's broker: MQTT over TLS, driven by the loop. A path that has gone silent is noticed
/// within 3 s whether or not data are under way. A failed attempt is repeated with back-off, for ever.
class CloudConnection {
public:
    /// Called on the loop's thread, outside every call of this class but Reopen and Close.
    struct Handler {
        /// @param source the connection's own address
        std::function<void(const std::string& source)> onConnected;
        /// It was connected and is not any more.
        std::function<void(const std::string& reason)> onLost;
        /// An attempt failed; the next one comes by itself.
        std::function<void(const std::string& reason, std::chrono::milliseconds delay)> onFailed;
    };

    CloudConnection(EventLoop& eventLoop, CloudSettings cloudSettings, Handler cloudHandler, BackOff::Random random);
    ~CloudConnection();

    /// Drops what there is and connects anew at once.
    void Reopen(const std::string& reason);
    /// The same with other settings. Without a host: closes.
    void Reopen(const CloudSettings& cloudSettings, const std::string& reason);
    /// True when the attempt that is under way, or the connection that it led to, began after that moment.
    bool BegunSince(std::chrono::steady_clock::time_point moment) const;
    /// Says good-bye to the broker, does not wait for it, and stays closed.
    void Close();

    bool Connected() const { return state == State::CONNECTED; }
    /// The own address of the connection; empty when not connected.
    const std::string& Source() const { return source; }

private:
    enum class State : int { CLOSED, DIALLING, CONNECTING, CONNECTED, WAITING };

    void Dial();
    void OnDialled(Dialled dialled);
    void OnSocket(std::uint32_t events);
    void AfterStep(int result, int systemError);
    void CheckLife();
    void OnDeadline();
    void End(const std::string& reason);
    void Drop();

    EventLoop& loop;
    const Handler handler;
    CloudSettings settings;

    CloudDialer dialer;
    BackOff backOff;
    Timer deadline;  // DIALLING, CONNECTING: the attempt has failed. WAITING: the next attempt.
    Timer keepAlive; // CONNECTED: signs of life, and the protocol's own timekeeping

    State state = State::CLOSED;
    MosquittoHandle client;
    int socket = -1; // the client's
    std::uint32_t watchedEvents = 0;
    int answer = -1;                             // the broker's to our CONNECT; -1 until it comes
    std::chrono::steady_clock::time_point begun; // DIALLING, CONNECTING, CONNECTED: the attempt
    std::chrono::steady_clock::time_point since; // CONNECTED
    std::string source;
};

} // namespace GatewayApp
