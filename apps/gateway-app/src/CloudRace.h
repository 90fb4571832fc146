// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CloudDialer.h"
#include "EventLoop.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct mosquitto;

namespace GatewayApp {

struct MosquittoDeleter {
    void operator()(mosquitto* handle) const;
};
using MosquittoHandle = std::unique_ptr<mosquitto, MosquittoDeleter>;

/// Lets the client read and write, as far as the EPOLL... flags that were found allow it.
/// @return the library's result
int Step(mosquitto* client, std::uint32_t events);
/// What went wrong in a step of a client, in words.
/// @param result      the step's, or MOSQ_ERR_CONN_LOST
/// @param socketError the kernel's, 0 when there is none
/// @param tls         what was seen on the socket; explains more than the result does
std::string FailureOf(int result, int socketError, const TlsContext& tls, int socket);
/// The error that the kernel keeps for the socket, which is taken with it; 0 when there is none.
int PendingError(int socket);

/// Connects to the cloud's broker at all of its addresses, one after the other while none answers (RFC 8305): the next
/// 250 ms after the last, or as soon as one has failed. The first that completes its TLS handshake has won; until then
/// its broker has been told nothing. Handshakes are long over Cellular, so one at a time is driven, and the next one
/// only when it has not ended after 1.5 s. One thread.
class CloudRace {
public:
    struct Winner {
        MosquittoHandle client; // has its TLS handshake behind it, and CONNECT to send or sent
        int socket;
        std::unique_ptr<int> answer; // the broker's to CONNECT, written when it comes; -1 until then
    };
    struct Handler {
        /// Called once, outside every call of this class; the object may be destroyed or begun anew in it.
        std::function<void(Winner winner)> onWon;
        /// The same, when no address is left.
        std::function<void(const std::string& reason)> onFailed;
    };

    CloudRace(EventLoop& eventLoop, Handler raceHandler);
    ~CloudRace();

    /// @param found     its TlsContext must outlive the race and the winner
    /// @param keepAlive the protocol's, in seconds
    void Begin(const CloudSettings& cloudSettings, const Dialled& found, int keepAlive);
    void Stop();
    /// What became of every address so far, for the end of an attempt that has taken too long.
    std::string Summary() const;

private:
    struct Runner;
    void StartNext();
    bool Start(Runner& runner);
    void OnSocket(Runner& runner, std::uint32_t events);
    void Drive(Runner& runner, std::uint32_t events, int error);
    void Watch(Runner& runner);
    void End(Runner& runner, const std::string& reason);
    void Continue();
    void OnStagger();
    void OnSlowHandshake();
    int Driven() const;

    EventLoop& loop;
    const Handler handler;
    Timer stagger;       // since an address was tried for the last time
    Timer slowHandshake; // since a handshake was begun for the last time
    CloudSettings settings;
    const Dialled* dialled = nullptr;
    int protocolKeepAlive = 0;
    int allowed = 1;                              // handshakes at a time
    bool nextIsDue = false;                       // the next address, as soon as another handshake is allowed
    std::vector<std::unique_ptr<Runner>> runners; // one for each address, in their order
    std::size_t started = 0;
};

} // namespace GatewayApp
