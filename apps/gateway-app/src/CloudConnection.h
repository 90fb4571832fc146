// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "BackOff.h"
#include "CloudDialer.h"
#include "CloudRace.h"
#include "EventLoop.h"
#include "KeepAlive.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace GatewayApp {

/// Keeps a connection to the cloud's broker: MQTT over TLS, driven by the loop. A path that has gone silent is noticed,
/// whether or not data are under way, in the time that KeepAlive gives: 3 s when it is 1 s. A failed attempt is
/// repeated with back-off, for ever.
class CloudConnection {
public:
    /// Called on the loop's thread, outside every call of this class but Reopen and Close.
    struct Handler {
        /// @param source the connection's own address
        std::function<void(const std::string& source)> onConnected;
        /// It was connected and is not any more; the next attempt comes by itself.
        std::function<void(const std::string& reason)> onLost;
        /// An attempt failed; the next one comes by itself.
        std::function<void(const std::string& reason, std::chrono::milliseconds delay)> onFailed;
        /// How often an idle connection is asked for a sign of life on the path that it has now; asked again and again.
        std::function<KeepAlive()> keepAlive;
        /// Optional: whether what leaves from this own address leaves over another interface than the route. Addresses
        /// of the cloud that would be reached so are left alone while there are others.
        std::function<bool(const std::string& source)> isDetour{};
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
    enum class State : int { CLOSED, DIALLING, RACING, CONNECTING, CONNECTED, WAITING };

    void Dial();
    void OnDialled(Dialled found);
    void OnWon(CloudRace::Winner winner);
    void OnSocket(std::uint32_t events);
    void AfterStep(int result, int systemError);
    void Answered();
    std::string TooLate() const;
    void CheckLife();
    void OnDeadline();
    void End(const std::string& reason);
    void Drop();

    EventLoop& loop;
    const Handler handler;
    CloudSettings settings;

    CloudDialer dialer;
    Dialled dialled; // RACING, CONNECTING, CONNECTED
    CloudRace race;  // RACING
    BackOff backOff;
    Timer deadline; // DIALLING, RACING, CONNECTING: the attempt has failed. WAITING: the next attempt.
    SilenceLimit silence;
    Timer lifeTimer; // CONNECTED: signs of life, and the protocol's own timekeeping

    State state = State::CLOSED;
    std::unique_ptr<int> answer; // the broker's to our CONNECT; -1 until it comes
    MosquittoHandle client;      // destroyed before what its TLS came from, and what it writes to
    int socket = -1;             // the client's
    std::uint32_t watchedEvents = 0;
    std::chrono::steady_clock::time_point begun; // every state but CLOSED and WAITING
    std::chrono::steady_clock::time_point since; // CONNECTED
    std::string source;
};

} // namespace GatewayApp
